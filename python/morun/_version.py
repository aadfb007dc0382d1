"""The version of the package: that of the library."""

VERSION = "1.0.0"
