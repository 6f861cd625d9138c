// Turns SIGINT, SIGTERM, SIGUSR1 and SIGHUP into bytes on a pipe, so the event loop
// sees them as one more readable descriptor.
#pragma once

#include <optional>

namespace tarsel::daemon {

class SignalPipe {
  public:
    SignalPipe();   // installs the handlers; ignores SIGPIPE
    ~SignalPipe();  // restores the default handlers and closes the pipe

    SignalPipe(SignalPipe const&) = delete;
    SignalPipe& operator=(SignalPipe const&) = delete;

    int fd() const { return m_read; }
    /* The next signal received, if any; never blocks. */
    std::optional<int> take();

  private:
    int m_read = -1;
    int m_write = -1;
};

}  // namespace tarsel::daemon
