#include "vhci/PortReservations.h"

CPortReservations& CPortReservations::OfThisProcess() {
    static CPortReservations reservations;
    return reservations;
}

std::uint64_t CPortReservations::Now() {
    CLockGuard guard(m_lock);
    return m_now;
}

bool CPortReservations::Reserve(unsigned int port, std::uint64_t read) {
    CLockGuard guard(m_lock);
    std::uint64_t& until = m_until[port];
    if (until > read) return false;
    until = kReserved;
    return true;
}

void CPortReservations::Release(unsigned int port) {
    CLockGuard guard(m_lock);
    m_until[port] = ++m_now;
}
