#include "kovantis/emulator/KOEmulator.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "KOEmulatorDashboardAssets.h"
#include "KOEmulatorFaults.h"
#include "KOEmulatorJSON.h"
#include "KOEmulatorService.h"
#include "KOEmulatorStore.h"
#include "KOEmulatorTaskQueue.h"

namespace {

constexpr size_t kWorkerThreads = 16;

int portOf(const sockaddr_storage& addr) {
  if (addr.ss_family == AF_INET) return ntohs(reinterpret_cast<const sockaddr_in*>(&addr)->sin_port);
  if (addr.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6*>(&addr)->sin6_port);
  return -1;
}

// httplib hands the emulator no socket of a connection, so it finds them among the process's
// descriptors: shuts down each connected socket for which `matches(localPort, peerPort)` holds.
// Returns how many it shut down.
int shutdownConnections(const std::function<bool(int localPort, int peerPort)>& matches) {
  int count = 0;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
    const std::string name = entry.path().filename().string();
    char* end = nullptr;
    long fd = std::strtol(name.c_str(), &end, 10);
    if (name.empty() || *end != '\0') continue;
    sockaddr_storage local{}, peer{};
    socklen_t localLen = sizeof local, peerLen = sizeof peer;
    int sock = static_cast<int>(fd);
    if (getsockname(sock, reinterpret_cast<sockaddr*>(&local), &localLen) != 0) continue;
    if (getpeername(sock, reinterpret_cast<sockaddr*>(&peer), &peerLen) != 0) continue;
    if (matches(portOf(local), portOf(peer)) && ::shutdown(sock, SHUT_RDWR) == 0) ++count;
  }
  return count;
}

// A dropped connection is the one whose local and peer ports are those of the request: a TCP
// connection's ports are unique on the host.
bool dropConnection(const httplib::Request& req) {
  return shutdownConnections([&](int localPort, int peerPort) {
           return localPort == req.local_port && peerPort == req.remote_port;
         }) > 0;
}

// httplib listens with a backlog of five; a burst of connections (a sync of many batches, a test's
// fifty clients) would then see SYNs dropped and stall for a second on retransmission.
class BacklogServer : public httplib::Server {
 public:
  void widenBacklog() { ::listen(svr_sock_, SOMAXCONN); }
};

// A fresh secret per run: 128 random bits as hex.
std::string newToken() {
  std::random_device random;
  std::string token;
  for (int i = 0; i < 4; ++i) {
    char part[9];
    std::snprintf(part, sizeof part, "%08x", static_cast<unsigned>(random()));
    token += part;
  }
  return token;
}

bool isLoopbackName(std::string_view name) { return name == "127.0.0.1" || name == "localhost" || name == "[::1]"; }

// "127.0.0.1:PORT" and the like: the only authorities the emulator answers its own API under, so
// that a name an attacker's DNS points at the loopback reaches nothing.
bool isLoopbackAuthority(std::string_view authority, int port) {
  const std::string suffix = ":" + std::to_string(port);
  if (authority.ends_with(suffix)) authority.remove_suffix(suffix.size());
  return isLoopbackName(authority);
}

bool isOwnOrigin(std::string_view origin, int port) {
  if (!origin.starts_with("http://")) return false;
  origin.remove_prefix(7);
  return origin.ends_with(":" + std::to_string(port)) && isLoopbackAuthority(origin, port);
}

bool changesState(const std::string& method) { return method != "GET" && method != "HEAD" && method != "OPTIONS"; }

// Why a call to the control API or the dashboard is refused, or empty. The emulator listens on
// the loopback only, but any page open in the developer's browser can send requests there: only
// the emulator's own page may read it, and only a caller holding the run's token may change it.
std::string refusal(const httplib::Request& req, const std::string& token) {
  const int port = req.local_port;
  if (req.has_header("Host") && !isLoopbackAuthority(req.get_header_value("Host"), port)) {
    return "host not allowed: " + req.get_header_value("Host");
  }
  if (req.has_header("Origin") && !isOwnOrigin(req.get_header_value("Origin"), port)) {
    return "origin not allowed: " + req.get_header_value("Origin");
  }
  const std::string site = req.get_header_value("Sec-Fetch-Site");
  if (!site.empty() && site != "same-origin" && site != "none") return "request from another site refused";
  if (changesState(req.method) && req.get_header_value(KOEmulator::kTokenHeader) != token) {
    return std::string("this call needs the header ") + KOEmulator::kTokenHeader + " (the dashboard page has it)";
  }
  return {};
}

std::string describe(const KOEmulatorFault& f) {
  std::ostringstream out;
  if (f.drop)
    out << "drop";
  else if (f.status)
    out << "status " << f.status;
  if (f.delayMs) out << (f.drop || f.status ? " after " : "delay ") << f.delayMs << " ms";
  return out.str();
}

}  // namespace

// Hidden: a nested class would otherwise take the exported visibility of KOEmulator.
class __attribute__((visibility("hidden"))) KOEmulator::Impl {
 public:
  explicit Impl(Options o) : options(std::move(o)), store(options.dataDir), service(store, faults, options.imagesDir) {}

  // `body` is the request's, read by httplib or, for a control call, by the handler below.
  void serve(const httplib::Request& req, httplib::Response& res, const std::string& body);
  // The dashboard's page and files, and the campaign preview; true when the path was one of them.
  bool serveDashboard(const httplib::Request& req, httplib::Response& res);
  void record(const httplib::Request& req, int status, const std::string& error, const std::string& fault,
              double startedAt);
  // Stalls for a fault's delay, cut short when the emulator stops.
  void stall(int64_t ms);

  Options options;
  const std::string token = newToken();
  KOEmulatorStore store;
  KOEmulatorFaults faults;
  KOEmulatorService service;

  mutable std::mutex lifecycle;  // start / stop
  std::unique_ptr<httplib::Server> server;
  std::thread listener;
  std::atomic<int> boundPort{0};

  std::mutex stopMutex;
  std::condition_variable stopChanged;
  bool stopping = false;

  mutable std::mutex arrivalMutex;
  mutable std::condition_variable arrived;

  std::mutex logMutex;

  std::atomic<size_t> concurrent{0};
  std::atomic<size_t> peakConcurrent{0};
};

namespace {

// Counts a request as being answered for as long as it lives, and keeps the peak.
class Answering {
 public:
  Answering(std::atomic<size_t>& current, std::atomic<size_t>& peak) : current_(current) {
    const size_t now = ++current_;
    size_t seen = peak.load();
    while (seen < now && !peak.compare_exchange_weak(seen, now)) {
    }
  }
  ~Answering() { --current_; }
  Answering(const Answering&) = delete;
  Answering& operator=(const Answering&) = delete;

 private:
  std::atomic<size_t>& current_;
};

}  // namespace

void KOEmulator::Impl::stall(int64_t ms) {
  std::unique_lock lock(stopMutex);
  stopChanged.wait_for(lock, std::chrono::milliseconds(ms), [&] { return stopping; });
}

void KOEmulator::Impl::record(const httplib::Request& req, int status, const std::string& error,
                              const std::string& fault, double startedAt) {
  KOEmulatorRequest r;
  r.time = KOEmulatorStore::now();
  r.durationMs = std::max(0.0, (r.time - startedAt) * 1000);
  r.method = req.method;
  r.path = req.path;
  r.target = req.target;
  r.queryJSON = KOEmulatorService::queryJSON(req.params);
  r.body = req.body;
  r.status = status;
  r.error = error;
  r.fault = fault;
  store.recordRequest(r);
  { std::lock_guard lock(arrivalMutex); }
  arrived.notify_all();
  if (options.logRequests) {
    std::lock_guard lock(logMutex);
    std::cerr << req.method << ' ' << req.target << " -> " << (status ? std::to_string(status) : "dropped");
    if (!fault.empty()) std::cerr << " [fault: " << fault << ']';
    if (!error.empty()) std::cerr << " (" << error << ')';
    std::cerr << std::endl;
  }
}

// Every request arrives here. What all service calls share (a fault may hit them, each is
// recorded and logged) happens around the service's table, which takes the rest.
void KOEmulator::Impl::serve(const httplib::Request& req, httplib::Response& res, const std::string& body) {
  const double startedAt = KOEmulatorStore::now();
  if (KOEmulatorService::isControlPath(req.path) || req.path == "/") {
    if (const std::string why = refusal(req, token); !why.empty()) {
      res.status = 403;
      res.set_content(KOEmulatorJSON::errorBody(why), "application/json");
      return;
    }
    if (serveDashboard(req, res)) return;
  }
  const bool recorded = !KOEmulatorService::isControlPath(req.path);
  std::optional<Answering> answering;
  if (recorded) answering.emplace(concurrent, peakConcurrent);
  try {
    if (KOEmulatorService::isFaultablePath(req.path)) {
      if (auto fault = faults.take(req.path, req.body)) {
        if (fault->delayMs > 0) stall(fault->delayMs);
        if (fault->drop) {
          // Recorded first, so that a client which saw the drop also finds the record.
          record(req, 0, {}, describe(*fault), startedAt);
          dropConnection(req);
          res.status = 500;  // never reaches the client: the socket is already shut
          res.set_content(KOEmulatorJSON::errorBody("dropped"), "application/json");
          return;
        }
        if (fault->status != 0) {
          res.status = fault->status;
          if (fault->status != 204 && fault->status != 304) {
            res.set_content(KOEmulatorJSON::errorBody("injected fault"), "application/json");
          }
          record(req, fault->status, {}, describe(*fault), startedAt);
          return;
        }
      }
    }
    KOEmulatorCall call{.method = req.method,
                        .path = req.path,
                        .query = req.params,
                        .contentType = req.get_header_value("Content-Type"),
                        .body = body,
                        .port = req.local_port};
    KOEmulatorReply reply = service.handle(call);
    res.status = reply.status;
    if (!reply.body.empty()) {
      res.set_content(reply.body, reply.contentType.empty() ? "application/json" : reply.contentType);
    }
    if (recorded) record(req, reply.status, reply.error, {}, startedAt);
  } catch (const std::exception& e) {
    // A store failure must not take the server down; it answers like a failing service.
    std::string message = std::string("emulator failure: ") + e.what();
    res.status = 500;
    res.set_content(KOEmulatorJSON::errorBody(message), "application/json");
    if (!recorded) return;
    try {
      record(req, 500, message, {}, startedAt);
    } catch (const std::exception&) {
    }
  }
}

bool KOEmulator::Impl::serveDashboard(const httplib::Request& req, httplib::Response& res) {
  if (req.method != "GET") return false;
  // Nothing of the dashboard may be framed by another page or guessed into another type.
  res.set_header("X-Frame-Options", "DENY");
  res.set_header("X-Content-Type-Options", "nosniff");
  res.set_header("Cache-Control", "no-store");
  if (req.path == "/__emulator/campaign_preview") {
    const std::string id = req.get_param_value("id");
    std::string picture;
    if (options.campaignPicture) {
      if (const auto campaign = service.seededCampaign(id)) picture = options.campaignPicture(*campaign);
    }
    if (picture.empty()) {
      res.status = 204;  // no preview: not an error the page should log
    } else {
      res.set_content(picture, "image/svg+xml");
    }
    return true;
  }
  const std::string_view name = req.path == "/" ? std::string_view("index.html")
                                : req.path.starts_with(KOEmulator::kDashboardPath)
                                    ? std::string_view(req.path).substr(std::strlen(KOEmulator::kDashboardPath))
                                    : std::string_view("-");
  for (const KOEmulatorAsset& asset : KOEmulatorDashboardAssets::all()) {
    if (asset.name != (name.empty() ? std::string_view("index.html") : name)) continue;
    std::string body(asset.text);
    if (asset.name == "index.html") {
      // The page learns the run's token from its own text, which no other origin can read.
      const std::string mark = "{{KOVANTIS_TOKEN}}";
      if (const auto at = body.find(mark); at != std::string::npos) body.replace(at, mark.size(), token);
      res.set_header("Content-Security-Policy",
                     "default-src 'self'; img-src 'self' data:; style-src 'self'; frame-ancestors 'none'");
    }
    res.set_content(body, std::string(asset.type));
    return true;
  }
  return false;
}

KOEmulator::KOEmulator(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {
  if (!impl_->options.seedFile.empty()) {
    std::ifstream in(impl_->options.seedFile, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read seed file " + impl_->options.seedFile);
    std::stringstream text;
    text << in.rdbuf();
    try {
      impl_->service.seed(text.str());
    } catch (const std::invalid_argument& e) {
      throw std::runtime_error(impl_->options.seedFile + ": " + e.what());
    }
  }
}

KOEmulator::~KOEmulator() { stop(); }

int KOEmulator::start(int port) {
  std::lock_guard lock(impl_->lifecycle);
  if (impl_->server) throw std::runtime_error("emulator already running");
  {
    std::lock_guard stopLock(impl_->stopMutex);
    impl_->stopping = false;
  }
  auto server = std::make_unique<BacklogServer>();
  server->new_task_queue = [] { return new KOEmulatorTaskQueue(kWorkerThreads); };
  server->set_keep_alive_timeout(impl_->options.keepAliveSeconds);
  server->set_keep_alive_max_count(static_cast<size_t>(std::max(1, impl_->options.keepAliveMaxRequests)));
  // Headers and body go out in separate writes: without this, Nagle and delayed ACKs add ~40 ms.
  server->set_tcp_nodelay(true);
  server->set_payload_max_length(64u << 20);
  Impl* impl = impl_.get();
  auto handler = [impl](const httplib::Request& req, httplib::Response& res) { impl->serve(req, res, req.body); };
  // A request with neither Content-Length nor chunked encoding has an empty body (RFC 9112 6.3);
  // httplib would wait for one until its read timeout and then refuse the call. Control calls read
  // their body themselves, so that `curl -X POST .../reset` is answered at once.
  auto control = [impl](const httplib::Request& req, httplib::Response& res, const httplib::ContentReader& read) {
    std::string body;
    if (req.has_header("Content-Length") ||
        req.get_header_value("Transfer-Encoding").find("chunked") != std::string::npos) {
      read([&](const char* data, size_t length) {
        body.append(data, length);
        return true;
      });
    }
    impl->serve(req, res, body);
  };
  const std::string controlPaths = std::string(KOEmulator::kControlPath) + ".*";
  server->Post(controlPaths, control).Put(controlPaths, control).Patch(controlPaths, control);
  server->Delete(controlPaths, control);
  server->Get(".*", handler).Post(".*", handler).Put(".*", handler).Patch(".*", handler);
  server->Delete(".*", handler).Options(".*", handler);
  // Errors httplib answers by itself (unreadable request, oversized body) still get a JSON body,
  // and are recorded when they were meant for the service.
  server->set_error_handler([impl](const httplib::Request& req, httplib::Response& res) {
    if (!res.body.empty()) return;
    std::string message = "request refused by the HTTP layer (status " + std::to_string(res.status) + ")";
    res.set_content(KOEmulatorJSON::errorBody(message), "application/json");
    if (!KOEmulatorService::isControlPath(req.path)) {
      try {
        impl->record(req, res.status, message, {}, KOEmulatorStore::now());
      } catch (const std::exception&) {
      }
    }
  });

  int bound = 0;
  if (port == 0) {
    bound = server->bind_to_any_port(impl_->options.bindAddress);
  } else {
    bound = server->bind_to_port(impl_->options.bindAddress, port) ? port : -1;
  }
  if (bound <= 0) {
    throw std::runtime_error("cannot bind " + impl_->options.bindAddress + ":" + std::to_string(port));
  }
  server->widenBacklog();
  impl_->boundPort = bound;
  httplib::Server* raw = server.get();
  impl_->listener = std::thread([raw] {
    pthread_setname_np(pthread_self(), "emu-listener");
    raw->listen_after_bind();
  });
  // stop() is a no-op until the accept loop runs, so do not hand out a server that could not be
  // stopped. The socket already listens, so clients may connect meanwhile.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!raw->is_running() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  impl_->server = std::move(server);
  return bound;
}

void KOEmulator::stop() {
  std::lock_guard lock(impl_->lifecycle);
  if (!impl_->server) return;
  {
    std::lock_guard stopLock(impl_->stopMutex);
    impl_->stopping = true;
  }
  impl_->stopChanged.notify_all();
  impl_->server->stop();
  // A worker keeps an idle kept-alive connection until its keep-alive time ends, and the listener
  // waits for every worker: cut the connections accepted on our port, so that stop() (and every
  // test's teardown) does not wait out a client that simply has not hung up yet.
  const int port = impl_->boundPort.load();
  shutdownConnections([port](int localPort, int) { return localPort == port; });
  impl_->listener.join();
  impl_->server.reset();
  impl_->boundPort = 0;
}

bool KOEmulator::isRunning() const {
  std::lock_guard lock(impl_->lifecycle);
  return impl_->server != nullptr;
}

int KOEmulator::port() const { return impl_->boundPort.load(); }

std::string KOEmulator::baseURL() const {
  return "http://" + impl_->options.bindAddress + ":" + std::to_string(port());
}

std::string KOEmulator::controlURL() const { return baseURL() + kControlPath; }
std::string KOEmulator::dashboardURL() const { return baseURL() + "/"; }
std::string KOEmulator::controlToken() const { return impl_->token; }

void KOEmulator::seed(const std::string& json) { impl_->service.seed(json); }
void KOEmulator::seedUnchecked(const std::string& json) { impl_->service.seed(json, false); }
std::string KOEmulator::seedsJSON() const { return impl_->service.seedsJSON(); }
void KOEmulator::injectFault(const KOEmulatorFault& fault) { impl_->faults.add(fault); }
void KOEmulator::clearFaults(const std::string& path) { impl_->faults.clear(path); }
std::vector<KOEmulatorFault> KOEmulator::faults() const { return impl_->faults.list(); }
void KOEmulator::reset(bool resetSeeds) {
  impl_->store.reset(resetSeeds);
  impl_->peakConcurrent = impl_->concurrent.load();
}
size_t KOEmulator::peakConcurrentRequests() const { return impl_->peakConcurrent.load(); }

std::vector<KOEmulatorRequest> KOEmulator::requests(const std::string& pathFilter) const {
  return impl_->store.requests(pathFilter);
}
size_t KOEmulator::requestCount(const std::string& pathFilter) const { return impl_->store.countRequests(pathFilter); }
std::vector<KOEmulatorDevice> KOEmulator::devices() const { return impl_->store.all<KOEmulatorDevice>(); }
std::vector<KOEmulatorBatch> KOEmulator::batches() const { return impl_->store.all<KOEmulatorBatch>(); }
std::vector<KOEmulatorEvent> KOEmulator::events() const { return impl_->store.all<KOEmulatorEvent>(); }
std::vector<KOEmulatorDuplicate> KOEmulator::duplicates() const { return impl_->store.all<KOEmulatorDuplicate>(); }
std::vector<KOEmulatorLog> KOEmulator::logs() const { return impl_->store.all<KOEmulatorLog>(); }
std::vector<KOEmulatorCategories> KOEmulator::categories() const { return impl_->store.all<KOEmulatorCategories>(); }
std::vector<KOEmulatorGeofenceHit> KOEmulator::geofenceHits() const {
  return impl_->store.all<KOEmulatorGeofenceHit>();
}
std::vector<KOEmulatorCampaignEvents> KOEmulator::campaignEvents() const {
  return impl_->store.all<KOEmulatorCampaignEvents>();
}
std::vector<KOEmulatorUser> KOEmulator::users() const { return impl_->store.all<KOEmulatorUser>(); }

std::vector<KOEmulatorRoute> KOEmulator::routes() { return KOEmulatorService::routes(); }

std::string KOEmulator::inspectJSON(const std::string& what, const std::string& pathFilter) const {
  if (std::optional<std::string> json = impl_->service.inspect(what, pathFilter)) return *json;
  throw std::invalid_argument("nothing to inspect called \"" + what + "\"");
}

bool KOEmulator::waitForRequests(const std::string& pathFilter, size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(impl_->arrivalMutex);
  return impl_->arrived.wait_for(lock, timeout, [&] { return impl_->store.countRequests(pathFilter) >= count; });
}
