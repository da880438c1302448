// Error numbers for libcurl's results.
#pragma once

#include <curl/curl.h>

#include "windows.h"

// Where an exchange stands; phases only move forward.
enum TransferPhase : int {
  TRANSFER_RESOLVE = 0,
  TRANSFER_CONNECT = 1,  // TCP, the proxy's tunnel and TLS
  TRANSFER_SEND = 2,
  TRANSFER_RECEIVE = 3,  // head and body
  TRANSFER_PHASE_COUNT = 4,
};

// What is known about a failed transfer besides libcurl's code.
struct TransferFailure {
  CURLcode code;
  TransferPhase phase;
  bool head_complete;
  long os_error;        // errno of the failed system call, 0 if none
  long connect_status;  // status of a proxy's answer to CONNECT, 0 if none
  const char* message;  // libcurl's text, possibly empty
};

DWORD zelHttpError_FromFailure(const TransferFailure* failure);
