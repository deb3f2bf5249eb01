#pragma once

// Service log lines carry the service's chief header as their source file.

#include <glog/logging.h>

#define QUIRELLE_LOG(severity) \
    google::LogMessage("library/quirelle/Quirelle", __LINE__, google::GLOG_##severity).stream()

// True when verbose diagnostics of the given level are on (the flag v).
#define QUIRELLE_VERBOSE(level) (FLAGS_v >= (level))
