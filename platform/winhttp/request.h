// One request as its handle holds it, from the first header to the last byte of the final response, redirects included.
#pragma once

#include "header_list.h"
#include "transfer.h"
#include "windows.h"

// Where a request goes. Strings are malloc'ed; all zero is an empty one.
struct Endpoint {
  bool secure;
  unsigned short port;
  char* host;
  char* target;  // as it stands in the request line
};

void zelHttpEndpoint_Free(Endpoint* endpoint);

// What all requests of a session share. Strings may be null.
struct SessionSettings {
  char* agent;
  char* proxy_list;
  char* proxy_bypass;
  TransferLimits limits;
};

enum RequestState : int {
  REQUEST_OPEN = 0,
  REQUEST_SENT = 1,
  REQUEST_RECEIVED = 2,
};

struct Request {
  const SessionSettings* settings;  // the session's
  Endpoint endpoint;
  char* verb;
  HeaderList headers;
  char* user;  // null: no credentials
  char* password;
  const void* body;  // the caller's
  DWORD body_size;
  RequestState state;
  Transfer transfer;
};

// Each returns 0 or an error number.
DWORD zelHttpRequest_Send(Request* request);
DWORD zelHttpRequest_Receive(Request* request);

void zelHttpRequest_Free(Request* request);
