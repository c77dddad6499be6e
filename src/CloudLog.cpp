#include "CloudLog.h"

ClassLog CloudLog::log("kivAWSWrapper: ");
