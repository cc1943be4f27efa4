// What the shared library exports; it is built with hidden visibility, so everything else in it is
// private to it.
#pragma once

#define QUIVER_API __attribute__((visibility("default")))
