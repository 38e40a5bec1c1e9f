// slow-link: puts a delay between a client and its server.
#include <fcntl.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>
#include <system_error>

#include "support/delay_relay.h"
#include "support/standard_descriptors.h"

namespace {

using zor::UniqueFd;
using zor::test::DelayRelay;

DelayRelay::End endOf(int socket) {
  UniqueFd copy(::fcntl(socket, F_DUPFD_CLOEXEC, 0));
  if (!copy) throw std::system_error(errno, std::generic_category(), "--between");
  return {UniqueFd(socket), std::move(copy)};
}

}  // namespace

int main(int argc, char** argv) {
  zor::fillStandardDescriptors();
  unsigned delay = 20;
  std::string listen;
  std::string connect;
  std::vector<int> between;
  CLI::App app{"Passes bytes on in both directions, each some milliseconds late"};
  app.add_option("--delay", delay, "Milliseconds")->capture_default_str();
  CLI::Option* sockets = app.add_option("--listen", listen, "The Unix socket to make");
  app.add_option("--connect", connect, "The Unix socket to pass connections on to")->needs(sockets);
  app.add_option("--between", between, "Two connected sockets, as descriptors; ends with them")
      ->expected(2)
      ->excludes(sockets);
  CLI11_PARSE(app, argc, argv);
  try {
    if (between.size() == 2) {
      DelayRelay relay{std::chrono::milliseconds(delay)};
      relay.add(endOf(between[0]), endOf(between[1]));
      relay.waitUntilIdle();
    } else {
      sigset_t ends;
      ::sigemptyset(&ends);
      ::sigaddset(&ends, SIGTERM);
      ::sigaddset(&ends, SIGINT);
      ::pthread_sigmask(SIG_BLOCK, &ends, nullptr);
      const DelayRelay relay(listen, connect, std::chrono::milliseconds(delay));
      int signal = 0;
      ::sigwait(&ends, &signal);
    }
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "slow-link: " << error.what() << std::endl;
    return 1;
  }
}
