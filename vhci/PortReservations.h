// Which virtual ports this process has chosen, so that two clients never choose the same one.
//
// A client reads the port table, which may take long, and chooses by what it has read: in between
// another one may have attached. So a port is not only reserved while it is being attached; later
// on, whoever began to read the table before that was over must not choose it either.
#pragma once

#include <cstdint>
#include <limits>
#include <map>

#include "base/Lock.h"

// Threads: any.
class CPortReservations {
  public:
    static CPortReservations& OfThisProcess();

    // To be asked before the table is read, and handed to Reserve.
    std::uint64_t Now() EXCLUDES(m_lock);

    // False: the port may have been taken since `read`.
    bool Reserve(unsigned int port, std::uint64_t read) EXCLUDES(m_lock);
    // The attach is over, whether or not it succeeded: the table tells from here on.
    void Release(unsigned int port) EXCLUDES(m_lock);

  private:
    static constexpr std::uint64_t kReserved = std::numeric_limits<std::uint64_t>::max();

    CMutexLock m_lock;  // innermost
    std::uint64_t m_now GUARDED_BY(m_lock) = 0;
    // By port, until when a table read does not tell about it.
    std::map<unsigned int, std::uint64_t> m_until GUARDED_BY(m_lock);
};
