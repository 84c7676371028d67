// The broker library's log: lines go to the logger installed with
// CabSatellite::setLogger, else to the process logger; warnings and errors
// go to standard error when there is neither. Any thread may log.
#pragma once

#include <boost/shared_ptr.hpp>

#include "diag/CBBLog.h"

namespace cablog {

void setLogger(const boost::shared_ptr<CBBLog>& logger);
void log(LOGLEVEL level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace cablog
