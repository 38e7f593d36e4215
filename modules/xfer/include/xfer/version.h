/* The version of these headers; xfer_version() tells that of the library that is loaded. */
#ifndef XFER_VERSION_H
#define XFER_VERSION_H

/* Raised by what hosts cannot bear: docs/abi.md. */
#define XFER_VERSION_MAJOR 1
/* Raised by what is added. */
#define XFER_VERSION_MINOR 0
/* Raised by corrections. */
#define XFER_VERSION_PATCH 0

#define XFER_VERSION_TEXT_OF_(major, minor, patch) #major "." #minor "." #patch
#define XFER_VERSION_TEXT_(major, minor, patch) XFER_VERSION_TEXT_OF_(major, minor, patch)
/* The three in one text: "1.0.0". */
#define XFER_VERSION_TEXT XFER_VERSION_TEXT_(XFER_VERSION_MAJOR, XFER_VERSION_MINOR, XFER_VERSION_PATCH)

#endif
