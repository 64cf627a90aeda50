// orvexd: the on-device search daemon. It takes no arguments; the session bus launches it on
// demand (D-Bus activation or its systemd user unit) and it runs until SIGINT or SIGTERM.
#include "orvexd/base/orvex_logging.h"
#include "orvexd/core/orvex_daemon.h"

int main() {
  // Before any thread exists, so that every thread inherits the mask.
  orvex::OrvexDaemon::blockHandledSignals();
  orvex::configureLoggingFromEnvironment();
  orvex::OrvexDaemon daemon(orvex::DirectoryEnvironment::fromProcess());
  return daemon.run();
}
