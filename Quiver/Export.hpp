// QV_EXPORT marks what the shared library may make visible (it is built with hidden visibility); the
// version script cmake/libquiver.map then lets out only the interface's families of names.
#pragma once

#include <quiver/Api.hpp>
