// One shared empty value of each kind. A manifest holds hundreds of thousands of entries, most without
// a target, a key or attributes; they all point at these instead of holding empties of their own.
#pragma once

#include "Quiver/CF/Data.hpp"
#include "Quiver/CF/Dictionary.hpp"
#include "Quiver/CF/String.hpp"

namespace CF {

QV_EXPORT const String& EmptyString();
QV_EXPORT const Data& EmptyData();
// Immutable, with the CFType callbacks.
QV_EXPORT const Dictionary& EmptyDictionary();

}  // namespace CF
