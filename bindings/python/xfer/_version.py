"""The version of this package: that of the headers it was written against (xfer/version.h)."""
__version__ = "1.0.0"
