"""For all tests: a shell has what it runs in the background ignore an interrupt, and that would be
handed on to the programs that the tests interrupt."""

import signal

signal.signal(signal.SIGINT, signal.default_int_handler)
