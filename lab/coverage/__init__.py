"""The coverage of the code by the tests."""
