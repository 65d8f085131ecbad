#include "ADHttpClient.h"

#include <curl/curl.h>
#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "KOUtilities/KOConsentGate.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOStringFormat.h"
#include "kovantis/KOPlatform.h"

namespace {

constexpr const char* kHeldForConsent = "not sent: tracking consent is not granted";

// What one finished transfer reports to its completion.
struct Outcome {
  long status = 0;
  std::string body;
  std::string error;  // transport error text; empty when the exchange completed
};

struct Transfer {
  KOURLRequest request;
  std::function<void(Outcome&&)> done;
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  Outcome outcome;
  char errorBuffer[CURL_ERROR_SIZE] = {0};
};

std::unique_ptr<Transfer> transfer(KOURLRequest request, std::function<void(Outcome&&)> done) {
  auto t = std::make_unique<Transfer>();
  t->request = std::move(request);
  t->done = std::move(done);
  return t;
}

std::size_t collectBody(char* data, std::size_t size, std::size_t count, void* userdata) {
  static_cast<Transfer*>(userdata)->outcome.body.append(data, size * count);
  return size * count;
}

void globalInit() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

void logApiFailure(const Outcome& o) {
  KOLogger::logLocated(KO_HERE, nullptr, KOLogSeverityDebug,
                       KOStringFormat::format("Kovantis - Api failed with response %@ and error %@",
                                              {KOValue(static_cast<std::int64_t>(o.status)),
                                               o.error.empty() ? KOValue() : KOValue(o.error)}),
                       KOValue());
}

}  // namespace

// Like the platform's URL session: a few connections per host, kept alive and reused; further
// requests queue for them instead of opening a socket each.
constexpr long kMaxConnectionsPerHost = 6;

static CURLM* newMulti() {
  CURLM* m = curl_multi_init();
  curl_multi_setopt(m, CURLMOPT_MAX_HOST_CONNECTIONS, kMaxConnectionsPerHost);
  return m;
}

struct ADHttpClient::Impl {
  CURLM* multi = nullptr;
  std::mutex mutex;
  std::deque<std::unique_ptr<Transfer>> pending;
  std::unordered_map<CURL*, std::unique_ptr<Transfer>> running;
  std::atomic<std::size_t> inFlight{0};
  std::atomic<bool> stopping{false};
  std::thread thread;
  // Connection-cache reset, asked for by another thread and done by the network thread.
  std::condition_variable resetCv;
  std::uint64_t resetsAsked = 0;
  std::uint64_t resetsDone = 0;

  Impl() {
    globalInit();
    multi = newMulti();
    // One of the two threads the SDK starts outside the port (the other reads binary property
    // lists): named for profilers. A plain function, so that the thread's type names nothing of
    // ours in the library's exported symbols.
    thread = std::thread(&Impl::run, static_cast<void*>(this));
  }

  static void run(void* self) {
    pthread_setname_np(pthread_self(), "ko-network");
    static_cast<Impl*>(self)->loop();
  }

  ~Impl() { stop(); }

  void stop() {
    {
      std::lock_guard<std::mutex> lock(mutex);  // the network thread may be swapping the multi handle
      if (stopping.exchange(true)) return;
      curl_multi_wakeup(multi);
    }
    if (thread.joinable()) thread.join();
    // What never finished completes as a failure, so no caller waits forever.
    std::deque<std::unique_ptr<Transfer>> leftovers;
    {
      std::lock_guard<std::mutex> lock(mutex);
      leftovers.swap(pending);
    }
    for (auto& [easy, t] : running) {
      curl_multi_remove_handle(multi, easy);
      leftovers.push_back(std::move(t));
    }
    running.clear();
    for (auto& t : leftovers) finish(*t, "client shut down");
    curl_multi_cleanup(multi);
    multi = nullptr;
  }

  void submit(std::unique_ptr<Transfer> t) {
    ++inFlight;
    // Every request of the SDK passes here: without the user's consent none leaves the device. It
    // fails as a request that got no answer, and its caller keeps what it would have sent.
    if (!KOConsentGate::shared().admits(t->request.url)) return finish(*t, kHeldForConsent);
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (!stopping) {
        pending.push_back(std::move(t));
        curl_multi_wakeup(multi);
        return;
      }
    }
    finish(*t, "client shut down");
  }

  void finish(Transfer& t, const char* error) {
    if (t.easy) curl_easy_cleanup(t.easy);
    if (t.headers) curl_slist_free_all(t.headers);
    t.easy = nullptr;
    t.headers = nullptr;
    if (error) t.outcome.error = error;
    // No longer in flight once its outcome is known, before anyone hears of it.
    --inFlight;
    try {
      t.done(std::move(t.outcome));
    } catch (const std::exception& e) {
      KOLogger::logPlain(KOStringFormat::format("Kovantis - Exception : %@", {KOValue(e.what())}));
    }
  }

  bool start(Transfer& t) {
    t.easy = curl_easy_init();
    if (!t.easy) return false;
    CURL* e = t.easy;
    curl_easy_setopt(e, CURLOPT_URL, t.request.url.c_str());
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_PRIVATE, &t);
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &collectBody);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, t.errorBuffer);
    curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, static_cast<long>(t.request.timeoutSeconds * 1000));
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, t.request.verifyCertificates ? 1L : 0L);
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, t.request.verifyCertificates ? 2L : 0L);
    curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
    if (t.request.method == "POST") {
      curl_easy_setopt(e, CURLOPT_POST, 1L);
      const std::string_view body = t.request.bodyText();
      curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
      curl_easy_setopt(e, CURLOPT_POSTFIELDS, body.data());
    } else if (t.request.method != "GET") {
      curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, t.request.method.c_str());
    }
    // No "Expect: 100-continue" round trip for larger bodies.
    t.headers = curl_slist_append(t.headers, "Expect:");
    for (const auto& [name, value] : t.request.headers) {
      t.headers = curl_slist_append(t.headers, (name + ": " + value).c_str());
    }
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, t.headers);
    return curl_multi_add_handle(multi, e) == CURLM_OK;
  }

  void loop() {
    while (!stopping) {
      // Requests wait here, not inside curl, until a connection is free: a request's timeout
      // then counts from when it is really sent, however long the queue.
      std::deque<std::unique_ptr<Transfer>> fresh;
      {
        std::lock_guard<std::mutex> lock(mutex);
        while (!pending.empty() && running.size() + fresh.size() < static_cast<std::size_t>(kMaxConnectionsPerHost)) {
          fresh.push_back(std::move(pending.front()));
          pending.pop_front();
        }
      }
      for (auto& t : fresh) {
        if (t->request.bodySource) {
          t->request.sharedBody = t->request.bodySource();
          t->request.bodySource = nullptr;
          if (!t->request.sharedBody) {
            finish(*t, "the body is no longer there");
            continue;
          }
        }
        if (start(*t)) {
          CURL* easy = t->easy;
          running.emplace(easy, std::move(t));
        } else {
          finish(*t, "could not start the transfer");
        }
      }
      int active = 0;
      curl_multi_perform(multi, &active);
      int queued = 0;
      while (CURLMsg* msg = curl_multi_info_read(multi, &queued)) {
        if (msg->msg != CURLMSG_DONE) continue;
        CURL* easy = msg->easy_handle;
        const CURLcode result = msg->data.result;
        auto it = running.find(easy);
        if (it == running.end()) continue;
        std::unique_ptr<Transfer> t = std::move(it->second);
        running.erase(it);
        curl_multi_remove_handle(multi, easy);
        curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &t->outcome.status);
        if (result != CURLE_OK) {
          t->outcome.error = t->errorBuffer[0] ? t->errorBuffer : curl_easy_strerror(result);
        }
        finish(*t, nullptr);
      }
      resetIfAsked();
      bool startable = false;
      {
        std::lock_guard<std::mutex> lock(mutex);
        startable = !pending.empty() && running.size() < static_cast<std::size_t>(kMaxConnectionsPerHost);
      }
      if (startable) continue;  // a finished request freed a connection for one that waits
      curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
  }

  void resetIfAsked() {
    std::lock_guard<std::mutex> lock(mutex);
    if (resetsAsked == resetsDone || !running.empty() || !pending.empty()) return;
    curl_multi_cleanup(multi);
    multi = newMulti();
    resetsDone = resetsAsked;
    resetCv.notify_all();
  }
};

ADHttpClient::ADHttpClient() : impl_(std::make_unique<Impl>()) {}

ADHttpClient& ADHttpClient::sharedInstance() {
  // The client itself is never freed: a sync still running on another thread at exit gets a
  // "client shut down" failure rather than freed memory. Its network thread, started here, is
  // stopped here too, when static objects are destroyed at exit.
  static ADHttpClient* const client = new ADHttpClient();
  static const struct Stopper {
    ~Stopper() { client->shutdown(); }
  } stopper;
  return *client;
}
ADHttpClient::~ADHttpClient() = default;

void ADHttpClient::shutdown() { impl_->stop(); }

bool ADHttpClient::closeIdleConnections(double timeoutSeconds) {
  std::unique_lock<std::mutex> lock(impl_->mutex);
  if (impl_->stopping) return true;
  const std::uint64_t ticket = ++impl_->resetsAsked;
  curl_multi_wakeup(impl_->multi);
  return impl_->resetCv.wait_for(lock, std::chrono::duration<double>(timeoutSeconds),
                                 [&] { return impl_->resetsDone >= ticket || impl_->stopping; });
}
std::size_t ADHttpClient::inFlight() const { return impl_->inFlight; }

void ADHttpClient::fetchRequest(KOURLRequest request, FetchCompletion completion) {
  impl_->submit(transfer(std::move(request), [completion = std::move(completion)](Outcome&& o) {
    KOValue answer;
    if (o.error.empty() && o.status == 200) {
      try {
        answer = KOJSONSerialization::parse(o.body);
      } catch (const KOParseError&) {
      }
      // Only an object or an array is an answer; anything else reads as an empty one.
      if (!answer.isDictionary() && !answer.isArray()) answer = KODictionary{};
    } else {
      logApiFailure(o);
    }
    if (!completion) return;
    KOPlatform::current().dispatch->asyncMain([completion, answer = std::move(answer)] {
      try {
        // An answer that arrives once the user said no (or the data was wiped) is not used.
        completion(KOConsentGate::shared().optedOut() ? KOValue() : answer);
      } catch (const std::exception& e) {
        KOLogger::logException(KO_HERE, nullptr, "Kovantis - Exception : %@", e);
      }
    });
  }));
}

void ADHttpClient::syncRequest(KOURLRequest request, SuccessCompletion completion) {
  syncRequestWithStatus(std::move(request), [completion = std::move(completion)](long status) {
    if (completion) completion(status == 200);
  });
}

void ADHttpClient::syncRequestWithStatus(KOURLRequest request, StatusCompletion completion) {
  impl_->submit(transfer(std::move(request), [completion = std::move(completion)](Outcome&& o) {
    const bool ok = o.error.empty() && o.status == 200;
    if (!ok) logApiFailure(o);
    if (completion) completion(o.error.empty() ? o.status : 0);
  }));
}

void ADHttpClient::sendLogRequest(KOURLRequest request, SuccessCompletion completion) {
  impl_->submit(transfer(std::move(request), [completion = std::move(completion)](Outcome&& o) {
    const bool ok = o.error.empty() && o.status == 204;
    if (!ok) {
      KOLogger::logPlain(KOStringFormat::format(
          "Kovantis - the connection failed with response %@ error %@",
          {KOValue(static_cast<std::int64_t>(o.status)), o.error.empty() ? KOValue() : KOValue(o.error)}));
    }
    if (completion) completion(ok);
  }));
}

void ADHttpClient::dataRequest(KOURLRequest request, DataCompletion completion) {
  impl_->submit(transfer(std::move(request), [completion = std::move(completion)](Outcome&& o) {
    if (!completion) return;
    completion(std::vector<std::uint8_t>(o.body.begin(), o.body.end()), o.status, o.error);
  }));
}
