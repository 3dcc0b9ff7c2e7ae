// Real servers (memcached, redis-server, ...) started by a test inside the
// hermetic runner's namespaces, on loopback or a Unix socket. A test may stop
// and start them again to watch the library meet a server that went away.
#ifndef VELMORA_TESTS_SUPPORT_SERVER_PROCESS_H_
#define VELMORA_TESTS_SUPPORT_SERVER_PROCESS_H_

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace velmora::test {

class ServerProcess {
 public:
  // `argv[0]` is the program's path. `ready` answers whether the server
  // accepts work (e.g. CanConnectTcp); it is polled after each start.
  ServerProcess(std::vector<std::string> argv, std::function<bool()> ready);
  ~ServerProcess();

  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  // Starts the server and waits (up to 10 s) until it is ready. True when it
  // is; on failure the process is stopped again.
  bool Start();
  // SIGTERM, then SIGKILL after 5 s; waits for the process. No-op when
  // stopped.
  void Stop();
  // SIGKILL at once (the server gets no chance to close its connections);
  // waits for the process. No-op when stopped.
  void Kill();
  bool running() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }

 private:
  std::vector<std::string> argv_;
  std::function<bool()> ready_;
  pid_t pid_ = -1;
};

// True when a TCP connection to host:port succeeds.
bool CanConnectTcp(const std::string& host, int port);
// True when a connection to the Unix stream socket at `path` succeeds.
bool CanConnectUnix(const std::string& path);

// Debian's memcached, run as root, listening on 127.0.0.1:`port` (TCP only,
// no UDP) or on the Unix socket `path`; `extra` arguments follow, e.g.
// {"-m", "16"} or {"-t", "1"}. Not started yet.
std::unique_ptr<ServerProcess> MemcachedTcpServer(int port, std::vector<std::string> extra = {});
std::unique_ptr<ServerProcess> MemcachedUnixServer(const std::string& path,
                                                   std::vector<std::string> extra = {});
// The libmemcached configuration string of servers on 127.0.0.1 at `ports`:
// "--SERVER=127.0.0.1:P1 --SERVER=127.0.0.1:P2 ...".
std::string MemcachedPoolOptions(const std::vector<int>& ports);

}  // namespace velmora::test

#endif  // VELMORA_TESTS_SUPPORT_SERVER_PROCESS_H_
