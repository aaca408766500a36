// The host's control socket: what it answers, and to whom it tells what happens.
#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/Devices.h"
#include "posix/ControlServer.h"
#include "posix/Wait.h"

namespace host {

class Control {
  public:
    // Null with an `error`. Nothing is answered before Start.
    static std::unique_ptr<Control> Open(const std::string& path, std::string& error);
    ~Control();
    Control(const Control&) = delete;
    Control& operator=(const Control&) = delete;

    void Start(Devices& devices);  // which must outlive this

    // To everybody who watches. Any thread; never waits.
    void Publish(const DeviceEvent& event);

  private:
    using Client = posix::ControlServer::Client;

    Control() = default;
    void Run();
    void OnRequest(Client client, std::string_view request);
    // The last line of the answer: an error text, unless it is empty.
    void Finish(Client client, const std::string& error);
    void PassEvents();

    const posix::UniqueFd wake_ = posix::MakeEvent();  // readable: there are events, or it is over
    Devices* devices_ = nullptr;                       // constant once started

    // The control thread's.
    std::unique_ptr<posix::ControlServer> server_;
    std::set<Client> watchers_;

    std::mutex mutex_;
    std::vector<std::string> events_;  // guarded by mutex_: lines that wait
    bool over_ = false;                // guarded by mutex_

    std::thread thread_;  // last: it uses all the others
};

}  // namespace host
