#include "UploadLog.h"

ClassLog UploadLog::log("kivUpload: ");
