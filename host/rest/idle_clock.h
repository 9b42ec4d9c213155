/*
 * How long the peer has moved nothing.  Time that the caller's callbacks took is left out: a slow
 * client on the other side of a transfer is not an idle peer.
 */
#ifndef TIRVAL_REST_IDLE_CLOCK_H
#define TIRVAL_REST_IDLE_CLOCK_H

#include <chrono>
#include <cstdint>

namespace tirval::rest {

class idle_clock {
  public:
    using clock = std::chrono::steady_clock;

    /* The peer moved something just now. */
    void moved() { last_moved = clock::now(); }
    void exclude(clock::duration spent) { last_moved += spent; }
    std::uint64_t idle_ms() const
    {
        const auto idle =
            std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - last_moved);
        return idle.count() > 0 ? static_cast<std::uint64_t>(idle.count()) : 0;
    }

    /* Calls into the caller's code; the time is left out. */
    template <typename Function> auto outside(Function &&function)
    {
        const exclusion excluded(*this);
        return function();
    }

  private:
    class exclusion {
      public:
        explicit exclusion(idle_clock &owner) : idle(owner) {}
        ~exclusion() { idle.exclude(clock::now() - begin); }
        exclusion(const exclusion &) = delete;
        exclusion &operator=(const exclusion &) = delete;

      private:
        idle_clock &idle;
        clock::time_point begin = clock::now();
    };

    clock::time_point last_moved = clock::now();
};

} // namespace tirval::rest

#endif
