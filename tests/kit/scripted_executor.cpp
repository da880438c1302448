#include "scripted_executor.h"

#include <gtest/gtest.h>

#include <cstring>

#include "wreq_execute.h"

namespace {

std::optional<std::string> Optional(const char* text) {
  return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

}  // namespace

ScriptedReply Recognized(const std::string& text) {
  return {R"({"result":"success","version":"1.0","speaker":"user01","text":")" + text + "\"}"};
}

ScriptedReply ScriptedExecutor::Execute(Exchange exchange) {
  std::unique_lock lock(mutex_);
  exchanges_.push_back(std::move(exchange));
  changed_.notify_all();
  changed_.wait(lock, [this] { return !held_.load(); });
  if (replies_.empty()) return {};
  ScriptedReply reply = std::move(replies_.front());
  replies_.pop_front();
  return reply;
}

std::int32_t zelWreq_Execute(const WreqRequest* request, WreqResponse* response) {
  Exchange exchange{request->url,
                    request->method,
                    {},
                    {},
                    request->timeout_sec,
                    Optional(request->auth_basic.user_name),
                    Optional(request->auth_basic.user_pass)};
  for (std::int32_t i = 0; i < request->num_headers; ++i)
    exchange.headers.emplace_back(request->headers[i].key, request->headers[i].value);
  exchange.body.assign(reinterpret_cast<const char*>(request->data), static_cast<std::size_t>(request->data_len));
  const ScriptedReply reply = ScriptedExecutor::current->Execute(std::move(exchange));
  if (reply.result != WREQ_EXECUTE_BODY_TOO_BIG) response->status_code = reply.status_code;
  if (reply.result == WREQ_EXECUTE_FAILED) response->error_kind = reply.error_kind;
  if (reply.result != WREQ_EXECUTE_OK) return reply.result;
  EXPECT_LT(reply.body.size(), response->buffer_size);
  std::memcpy(response->buffer, reply.body.c_str(), reply.body.size() + 1);
  response->data = response->buffer;
  response->data_size = static_cast<std::uint32_t>(reply.body.size());
  return WREQ_EXECUTE_OK;
}

const char* zelWreq_GetWinHttpErrorName(std::uint32_t) {
  return "scripted";
}

WreqErrorKind zelWreq_ClassifyWinHttpError(std::uint32_t) {
  return WREQ_ERROR_INTERNAL;
}
