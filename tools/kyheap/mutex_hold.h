// Holds a pthread mutex for a scope. The tool's mutexes are plain pthread
// mutexes rather than std::mutex because they are taken in the fork
// handlers and re-initialised in the child.
#ifndef KYHEAP_MUTEX_HOLD_H
#define KYHEAP_MUTEX_HOLD_H

#include <pthread.h>

namespace kyheap {

class MutexHold {
 public:
  explicit MutexHold(pthread_mutex_t* mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~MutexHold() { pthread_mutex_unlock(mutex_); }
  MutexHold(const MutexHold&) = delete;
  MutexHold& operator=(const MutexHold&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

}  // namespace kyheap

#endif  // KYHEAP_MUTEX_HOLD_H
