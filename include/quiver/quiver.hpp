// Everything of the library's C++ front.
#pragma once

#include "quiver/Api.hpp"
#include "quiver/Backup.hpp"
#include "quiver/Error.hpp"
#include "quiver/Value.hpp"
