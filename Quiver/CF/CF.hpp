// All CF:: value classes.
#pragma once

#include "Quiver/CF/Array.hpp"
#include "Quiver/CF/Data.hpp"
#include "Quiver/CF/Date.hpp"
#include "Quiver/CF/Dictionary.hpp"
#include "Quiver/CF/Error.hpp"
#include "Quiver/CF/Number.hpp"
#include "Quiver/CF/Object.hpp"
#include "Quiver/CF/String.hpp"
