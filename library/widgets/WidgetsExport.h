#pragma once

#include <QtGlobal>

// The widget classes are exported from libquirelle-widgets.so; everything else
// in it stays hidden.
#if defined(QUIRELLE_WIDGETS_BUILD)
#define QUIRELLE_WIDGETS_EXPORT Q_DECL_EXPORT
#else
#define QUIRELLE_WIDGETS_EXPORT Q_DECL_IMPORT
#endif
