// Marks the symbols that the shared library exports; everything else is hidden.
#pragma once

#define QUARN_EXPORT __attribute__((visibility("default")))
