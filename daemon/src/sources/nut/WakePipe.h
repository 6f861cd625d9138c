// Wakes the loop's poll() from another thread: a pipe whose read end the
// loop watches. Both ends are non-blocking, so a waker never waits and
// wakes that pile up cost one byte each until drained.
#pragma once

namespace tarsel::daemon::nut {

class WakePipe {
  public:
    /* Throws std::runtime_error when no pipe can be made. */
    WakePipe();
    ~WakePipe();

    WakePipe(WakePipe const&) = delete;
    WakePipe& operator=(WakePipe const&) = delete;

    int fd() const { return m_read; }
    /* Any thread; never blocks. */
    void wake();
    /* Empties the pipe; the loop's thread. */
    void drain();

  private:
    int m_read = -1;
    int m_write = -1;
};

}  // namespace tarsel::daemon::nut
