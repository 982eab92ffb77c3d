#include "ZrMutex.h"

namespace Zarn {

ZrMutex::ZrMutex(int reentrant) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes,
                            reentrant == 1 ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_NORMAL);
  pthread_mutex_init(&m_mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

ZrMutex::~ZrMutex() { pthread_mutex_destroy(&m_mutex); }

void ZrMutex::Lock() { pthread_mutex_lock(&m_mutex); }

void ZrMutex::Unlock() { pthread_mutex_unlock(&m_mutex); }

bool ZrMutex::TryLock() { return pthread_mutex_trylock(&m_mutex) == 0; }

}  // namespace Zarn
