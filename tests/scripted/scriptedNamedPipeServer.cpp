#include "tests/scripted/scriptedMachine.h"

#include "system/nqNamedPipeServer.h"

#include <stdexcept>
#include <utility>

namespace nq {

/// The server's data stands in the machine; the object needs none of its own.
struct nqNamedPipeServer::Private {};

nqNamedPipeServer::nqNamedPipeServer()
{
    if (scripted::machine().serverConstructionFails)
        throw std::runtime_error("scripted: no server");
    scripted::machine().call("server: created");
}

nqNamedPipeServer::~nqNamedPipeServer()
{
    scripted::machine().call("server: destroyed");
}

bool nqNamedPipeServer::listenUtf8(const std::string& name)
{
    scripted::machine().call("server: listenUtf8(" + name + ")");
    return scripted::machine().server.listens;
}

void nqNamedPipeServer::processPipeServerEvents(int timeoutMs)
{
    scripted::machine().call("server: processPipeServerEvents(" + std::to_string(timeoutMs) + ")");
}

bool nqNamedPipeServer::waitForNewConnection(int timeoutMs, bool* timedOut)
{
    scripted::Machine& machine = scripted::machine();
    machine.call(
        "server: waitForNewConnection(" + std::to_string(timeoutMs) + ", " +
        (timedOut == nullptr ? "null" : "flag") + ")");

    auto outcome = scripted::Connection::arrives;
    if (!machine.server.connections.empty()) {
        outcome = machine.server.connections.front();
        machine.server.connections.pop_front();
    }
    if (outcome == scripted::Connection::arrives)
        machine.server.pending.push_back(machine.takePipe());
    return outcome != scripted::Connection::timesOut;
}

bool nqNamedPipeServer::hasPendingConnections() const
{
    scripted::machine().query("server: hasPendingConnections()");
    return !scripted::machine().server.pending.empty();
}

std::unique_ptr<nqNamedPipe> nqNamedPipeServer::takePendingConnection()
{
    scripted::Machine& machine = scripted::machine();
    if (machine.server.pending.empty()) {
        machine.query("server: takePendingConnection()");
        return nullptr;
    }
    auto record = machine.server.pending.front();
    machine.server.pending.pop_front();
    machine.call("server: takePendingConnection() gives " + record->name);
    machine.adoptPipe(std::move(record));
    return std::make_unique<nqNamedPipe>();
}

void nqNamedPipeServer::closeNamedPipeServer()
{
    scripted::machine().call("server: closeNamedPipeServer()");
    scripted::machine().server.pending.clear();
}

} // namespace nq
