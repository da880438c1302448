// kit-server: scripted servers for tests on Windows, which control them over loopback (control_link.h). Prints the port
// at which it listens and runs until its standard input ends.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <thread>

#include "control_link.h"
#include "http_server.h"
#include "test_certificates.h"

namespace {

// One control connection from beginning to end.
void Serve(int socket) {
  std::unique_ptr<kit::HttpServer> server;
  while (const auto request = kit::ReceiveTexts(socket)) {
    const std::string command = request->empty() ? "" : request->front();
    std::vector<std::string> answer;
    if (command == "serve" && request->size() == 2) {
      server = std::make_unique<kit::HttpServer>(kit::UnpackScripts((*request)[1]));
      answer = {std::to_string(server->port())};
    } else if (command == "release" && server) {
      server->Release();
    } else if (command == "requests" && server) {
      answer = server->requests();
    } else if (command == "authority") {
      answer = {kit::Authority::Get().Der()};
    } else {
      break;
    }
    if (!kit::SendTexts(socket, answer)) break;
  }
  server.reset();  // before the connection, whose end tells that the server has gone
  close(socket);
}

}  // namespace

int main() {
  signal(SIGPIPE, SIG_IGN);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(listener, generic, size) != 0 || listen(listener, 128) != 0 || getsockname(listener, generic, &size) != 0) {
    std::perror("kit-server");
    return 1;
  }
  std::printf("%d\n", ntohs(address.sin_port));
  std::fflush(stdout);
  for (;;) {
    pollfd events[] = {{listener, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    if (poll(events, 2, -1) < 0) continue;
    char byte = 0;
    if (events[1].revents != 0 && read(STDIN_FILENO, &byte, 1) <= 0) break;
    if (events[0].revents == 0) continue;
    if (const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC); connection >= 0)
      std::thread(Serve, connection).detach();
  }
  unlink(kit::Authority::Get().file().c_str());
  _exit(0);  // threads of connections may still be there
}
