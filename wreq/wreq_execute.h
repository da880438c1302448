// Execution of one HTTP or HTTPS request on the calling thread.
#pragma once

#include "wreq_request.h"

enum WreqExecuteResult : std::int32_t {
  WREQ_EXECUTE_OK = 0,            // a response was received, whatever its HTTP status
  WREQ_EXECUTE_FAILED = 1,        // reported; `error_kind` tells the class when the platform failed
  WREQ_EXECUTE_BODY_TOO_BIG = 3,  // the body does not fit the response buffer; not reported, record untouched
};

// Runs `request` from start to finish and writes the outcome into `response`. Both are valid pointers. Blocks for the
// whole exchange, bounded by the platform's time-outs. Keeps no state between calls and may run on several threads at
// once.
std::int32_t zelWreq_Execute(const WreqRequest* request, WreqResponse* response);

// Symbolic name of a platform error number, "unknown" for one that is not in the table. Never null.
const char* zelWreq_GetWinHttpErrorName(std::uint32_t error);

WreqErrorKind zelWreq_ClassifyWinHttpError(std::uint32_t error);
