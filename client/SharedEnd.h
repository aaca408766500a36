// One end of a device's socket pair, with more than one thread using it.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include "base/Lock.h"

// The last user to leave closes it, so that no thread can use a descriptor number that has been
// closed and taken again.
class CSharedEnd {
  public:
    // The owner's: before the users start, and after they have ended, if they left or not.
    void Open(int fd, int users) EXCLUDES(m_lock) {
        CLockGuard guard(m_lock);
        m_fd = fd;
        m_users = users;
    }
    void Close() EXCLUDES(m_lock) {
        CLockGuard guard(m_lock);
        if (m_users > 0) close(m_fd);
        m_users = 0;
    }

    // A user's, until it has left.
    int Get() const { return m_fd; }
    void Leave() EXCLUDES(m_lock) {
        CLockGuard guard(m_lock);
        if (--m_users == 0) close(m_fd);
    }

    // Anybody's: ends a poll, read or write in progress.
    void Shutdown() EXCLUDES(m_lock) {
        CLockGuard guard(m_lock);
        if (m_users > 0) shutdown(m_fd, SHUT_RDWR);
    }

  private:
    CMutexLock m_lock;                   // innermost
    int m_users GUARDED_BY(m_lock) = 0;  // 0: not open
    int m_fd = -1;                       // constant while there are users
};
