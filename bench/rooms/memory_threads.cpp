// The peer of row memory. Of the options, those of the plug-in that size buffers.
#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <semaphore>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "memory.h"

namespace rooms {
namespace {

constexpr std::size_t kReplyCapacity = 1232;  // of the plug-in's worker

struct Reply {
  std::array<char, kReplyCapacity> bytes;
  std::size_t size = 0;
};

std::size_t TakeReply(char* bytes, std::size_t, std::size_t size, void* user) {
  auto& reply = *static_cast<Reply*>(user);
  if (size > kReplyCapacity - reply.size) return 0;
  std::copy_n(bytes, size, reply.bytes.data() + reply.size);
  reply.size += size;
  return size;
}

bool Post(const std::string& url, const std::string& body) {
  Reply reply;
  long status = 0;
  CURL* easy = curl_easy_init();
  curl_slist* headers = curl_slist_append(nullptr, "Expect:");
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, 8192L);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.data());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, TakeReply);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &reply);
  const bool answered = curl_easy_perform(easy) == CURLE_OK;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  curl_easy_cleanup(easy);
  curl_slist_free_all(headers);
  return answered && status == 200 && reply.size > 0;
}

}  // namespace

struct CurlThreads::Worker {
  std::binary_semaphore wanted{0};
  bool quit = false;    // written before `wanted` is released
  bool failed = false;  // read after `done_` has been acquired
  std::thread thread;
};

CurlThreads::CurlThreads(std::size_t count, std::string url, std::size_t body_size)
    : url_(std::move(url)), body_(body_size, 'x') {
  for (std::size_t i = 0; i < count; ++i) {
    Worker& worker = *workers_.emplace_back(std::make_unique<Worker>());
    worker.thread = std::thread([this, &worker] {
      done_.release();
      for (worker.wanted.acquire(); !worker.quit; worker.wanted.acquire()) {
        worker.failed = !Post(url_, body_);
        done_.release();
      }
    });
    done_.acquire();
  }
}

CurlThreads::~CurlThreads() {
  for (const auto& worker : workers_) {
    worker->quit = true;
    worker->wanted.release();
    worker->thread.join();
  }
}

void CurlThreads::Converse(std::size_t first, std::size_t count) {
  for (std::size_t i = first; i < first + count; ++i)
    workers_[i]->wanted.release();
  for (std::size_t i = 0; i < count; ++i)
    done_.acquire();
  for (std::size_t i = first; i < first + count; ++i) {
    if (workers_[i]->failed) throw std::runtime_error("memory: an exchange has failed");
  }
}

}  // namespace rooms
