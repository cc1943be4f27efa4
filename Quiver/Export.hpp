// QV_EXPORT marks the library's public interface. The shared library is built with hidden visibility,
// so only what carries this mark (and the CoreFoundation subset's CF_EXPORT functions) is visible to
// callers.
#pragma once

#define QV_EXPORT __attribute__((visibility("default")))
