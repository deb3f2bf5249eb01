#pragma once

// Symbols an application links against carry default visibility; everything
// else in libquirelle.so is hidden.
#define QUIRELLE_EXPORT __attribute__((visibility("default")))
// For classes nested in an exported class that must stay inside the library
// (a nested class takes its enclosing class's visibility).
#define QUIRELLE_HIDDEN __attribute__((visibility("hidden")))
