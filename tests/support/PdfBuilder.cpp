#include "tests/support/PdfBuilder.h"
