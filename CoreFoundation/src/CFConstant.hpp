// Constant objects (the booleans, the error keys and domains) that other translation units may use from
// their own static initialisers, for example to build an error domain string at library start-up.
//
// The exported references are plain pointers to the objects below, so they are constant-initialised
// and valid from the first instruction. The objects themselves are built in the highest-priority
// initialisers, which the linker runs before every ordinary static initialiser of the image, and they
// are never destroyed, so they also stay usable from static destructors and atexit handlers.
#pragma once

#include "CFRuntime.hpp"

#include <new>
#include <utility>

namespace cf {

// Use as: CF_CONSTANT_OBJECT Immortal<__CFBoolean> gTrue(true);
#define CF_CONSTANT_OBJECT __attribute__((init_priority(101)))

template <typename T>
struct Immortal {
    template <typename... Args>
    explicit Immortal(Args&&... args) {
        new (&object) T(std::forward<Args>(args)...);
        object.immortal = true;
    }
    ~Immortal() {}  // deliberately leaves the object alive
    Immortal(const Immortal&) = delete;
    Immortal& operator=(const Immortal&) = delete;

    union {
        T object;
    };
};

// A constant string with the given (valid UTF-8) text.
struct ConstantString : Immortal<__CFString> {
    explicit ConstantString(const char* text) { object.set(text); }
};

}  // namespace cf
