"""What a vendor shows to customers and authorities: `./dev evidence`."""
