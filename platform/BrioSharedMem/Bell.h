#pragma once

#include <atomic>
#include <cstdint>

#include "Lumen/Exception.h"
#include "Lumen/String.h"

// A bell wakes the process at the other end of a store when it sleeps, and costs a busy one nothing
// but an exchange of a word.
//
// It is two files in the manager's folder: a named pipe (.bell-NAME.pipe), whose bytes are wake-ups
// and mean nothing else, and a page (.bell-NAME.page) with one word, `armed`: 1 while the listener
// sleeps or is about to. One process listens; any number ring. Two-way waking is two bells.
//
//   listener                                  ringer
//   L1  armed.exchange(1)       arm()         R1  store the work (any release store)
//   L2  look for work                         R2  if armed.exchange(0) == 1     ring()
//   L3  none: sleep on fd()                   R3     write one byte to the pipe
//   L4  awake: armed.exchange(0), read the pipe empty    disarm()
//
// No wake-up is lost. L1 and R2 exchange the same word, so one comes first in its modification
// order:
// - R2 first. Every store to the word is an exchange, so L1 reads from R2 or from an exchange that
//   goes back to it, and so acquires what R2 released, R1 among it: L2 sees the work.
// - L1 first. R2 reads 1, unless another exchange has cleared the word in between: the listener's
//   own L4, after which it looks for work again before it sleeps (the case above, with its next
//   L1); or another ringer's R2, which then writes the byte itself, and the listener that wakes
//   looks for all work.
// A plain load at R2 would be cheaper and wrong: with R1 a mere release store it may be answered
// before R1 is visible, and both sides would miss each other. No free-standing fence is needed with
// the exchange.
//
// Either side may be killed at any instant. A listener that dies leaves `armed` as it was: a ringer
// then writes at most one byte until somebody arms again. A ringer that dies between R1 and R3
// leaves its last work unannounced; a ringer rings once, armed or not, when it attaches, and a
// listener finds its bell rung when it attaches, so whichever comes back first heals that. A
// listener that can't wait for that bounds its sleep.
//
// Nobody waits and nobody dies on the pipe: both ends open it for reading and writing, so that
// there is always a reader (no SIGPIPE, no end of file), and without blocking, so that a full pipe
// drops a byte that a full pipe has no need of.
namespace BrioSharedMem {

// The files of a bell could not be made or are no bell's. Names the file and the remedy.
class BellError : public Lumen::Exception {
 public:
  using Exception::Exception;
  ~BellError() override;
};

// One end. It belongs to one thread.
class Bell {
 public:
  enum class Role : std::uint8_t { listener, ringer };

  // Attaches, and makes the folder (0750) and the two files (0640) if they are absent. `name` is a
  // single path component. Throws BellError.
  Bell(const Lumen::String& folderPath, const Lumen::String& name, Role role);
  ~Bell();
  Bell(const Bell&) = delete;
  Bell& operator=(const Bell&) = delete;

  // Listener: readable when the bell was rung; for poll() or an event loop. Owned by the bell.
  [[nodiscard]] int fd() const noexcept { return pipe_; }
  // Listener: from here on a ring wakes. Look for work once more before going to sleep on fd().
  void arm() noexcept { armed_->exchange(1, std::memory_order_seq_cst); }
  // Listener: awake, or found work after arm(): takes all wake-ups that have come so far. Look for
  // work after it.
  void disarm() noexcept;
  // Listener: arm() has been called and nobody has rung since.
  [[nodiscard]] bool armed() const noexcept { return armed_->load(std::memory_order_seq_cst) != 0; }

  // Ringer: wakes the listener if it sleeps. Call it after the work is stored; once for many pieces
  // of work will do. About 5 ns while the listener is awake, and no system call.
  void ring() noexcept {
    if (armed_->exchange(0, std::memory_order_seq_cst) != 0) [[unlikely]] {
      wake();
    }
  }
  // Bytes that this end has written: the wake-ups that cost a system call.
  [[nodiscard]] std::uint64_t wakeUps() const noexcept { return wakeUps_; }

 private:
  using Word = std::atomic<std::uint32_t>;
  static_assert(Word::is_always_lock_free);

  void wake() noexcept;
  void detach() noexcept;

  int pipe_ = -1;
  int page_ = -1;          // kept open: a listener holds a lock on it
  Word* armed_ = nullptr;  // in the page
  std::uint64_t wakeUps_ = 0;
};

}  // namespace BrioSharedMem
