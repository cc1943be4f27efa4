// What the shared library exports; it is built with hidden visibility, so everything else in it is
// private to it.
#pragma once

#define QUIVER_API __attribute__((visibility("default")))
// The same mark on the layer beneath the front (the QV functions over CoreFoundation types).
#define QV_EXPORT QUIVER_API
