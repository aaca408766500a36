// One end of a device's socket pair, with more than one thread using it.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include "base/Lock.h"

// The last user to leave closes it, so that no thread can use a descriptor number that has been
// closed and taken again.
class CSharedEnd {
  public:
    enum User : unsigned { kReader = 1, kWriter = 2, kVisitor = 4 };

    // The owner's: before the reader and the writer start.
    void Open(int fd) EXCLUDES(m_lock) {
        CLockGuard guard(m_lock);
        m_fd = fd;
        m_users = kReader | kWriter;
    }

    // The visitor's, of whom there is one at a time. False: it is closed.
    bool Visit() EXCLUDES(m_lock) {
        CLockGuard guard(m_lock);
        if (m_users != 0) m_users |= kVisitor;
        return m_users != 0;
    }

    // A user's, until it has left.
    int Get() const { return m_fd; }

    // Does nothing for those that have left before.
    void Leave(unsigned users) EXCLUDES(m_lock) {
        CLockGuard guard(m_lock);
        if ((m_users & users) != 0 && (m_users &= ~users) == 0) close(m_fd);
    }

    // Anybody's: ends a read or write in progress.
    void Shutdown() EXCLUDES(m_lock) {
        CLockGuard guard(m_lock);
        if (m_users != 0) shutdown(m_fd, SHUT_RDWR);
    }

  private:
    CMutexLock m_lock;                        // innermost
    unsigned m_users GUARDED_BY(m_lock) = 0;  // 0: not open
    int m_fd = -1;                            // constant while there are users
};
