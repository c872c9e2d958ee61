// Marks what the process may see of the library; everything else is hidden.
#pragma once

#define PKGDIST_EXPORT __attribute__((visibility("default")))
