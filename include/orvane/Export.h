#pragma once

// Symbols an application links against carry default visibility; everything
// else in libquirelle.so is hidden.
#define QUIRELLE_EXPORT __attribute__((visibility("default")))
