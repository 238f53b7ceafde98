// CPU seconds of the calling thread. Stage shares are measured with it, so
// they do not change when other processes take the machine's cores (wall
// time on a busy machine counts the waiting too).
#pragma once

#include <ctime>

namespace city {

inline double ThreadSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + 1e-9 * double(ts.tv_nsec);
}

}  // namespace city
