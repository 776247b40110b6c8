"""The lab's console: a device that stays up, shown on a web page and in plain text."""
