"""pelmor-cloud-check: checks whether a fleet of ap-pelmor daemons can live with a cloud. It needs
only Python's standard library, and nothing else of this tree."""
