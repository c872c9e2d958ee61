// A function that the linker wraps (--wrap=NAME) and whose result is its error: fails when it
// shall, else does what it does. Where it is used, failing(call) gives the error or 0.
#pragma once

#define PKGDIST_WRAP_RESULT(call, name, parameters, arguments) \
  extern "C" int __real_##name parameters;                     \
  extern "C" int __wrap_##name parameters;                     \
  extern "C" int __wrap_##name parameters {                    \
    if (int error = failing(call); error != 0) return error;   \
    return __real_##name arguments;                            \
  }
