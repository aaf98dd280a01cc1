#include "net/http_client.h"

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <mutex>
#include <string_view>

#include "platform/blocking.h"
#include "platform/mutex.h"
#include "platform/text.h"

namespace tavrel::net {
namespace {

/// Handles kept for later calls; each holds a few tens of KiB, resolved names and TLS sessions.
constexpr std::size_t kMaxIdleHandles = 16;
/// All header lines of an answer together; libcurl itself bounds only each of them.
constexpr std::size_t kMaxHeadBytes = std::size_t{256} << 10;

using Handle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;

class HeaderList {
 public:
  ~HeaderList() { curl_slist_free_all(list_); }
  HeaderList() = default;
  HeaderList(const HeaderList&) = delete;
  HeaderList& operator=(const HeaderList&) = delete;

  void add(const std::string& line) {
    if (curl_slist* longer = curl_slist_append(list_, line.c_str())) list_ = longer;
  }
  curl_slist* get() const { return list_; }

 private:
  curl_slist* list_ = nullptr;
};

/// What libcurl's callbacks know about the call in progress.
struct Transfer {
  const std::atomic<bool>& cancelled;
  const std::size_t max_answer_bytes;
  std::string body{};
  std::size_t head_bytes = 0;
  bool too_large = false;
};

std::size_t takeBody(char* data, std::size_t, std::size_t size, void* user) {
  auto& transfer = *static_cast<Transfer*>(user);
  if (size > transfer.max_answer_bytes - transfer.body.size()) {
    transfer.too_large = true;
    return CURL_WRITEFUNC_ERROR;
  }
  transfer.body.append(data, size);
  return size;
}

std::size_t takeHeaderLine(char*, std::size_t, std::size_t size, void* user) {
  auto& transfer = *static_cast<Transfer*>(user);
  transfer.head_bytes += size;
  if (transfer.head_bytes <= kMaxHeadBytes) return size;
  transfer.too_large = true;
  return CURL_WRITEFUNC_ERROR;
}

int isCancelled(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<Transfer*>(user)->cancelled ? 1 : 0;
}

bool isWellFormed(const HttpCall& call) {
  return !platform::hasControls(call.method) && !platform::hasControls(call.url) &&
         std::none_of(call.headers.begin(), call.headers.end(), [](const auto& header) {
           return platform::hasControls(header.first) || platform::hasControls(header.second);
         });
}

void addHeaders(const HttpCall& call, HeaderList& list) {
  bool has_content_type = false;
  for (const auto& [name, value] : call.headers) {
    has_content_type = has_content_type || platform::equalsIgnoringCase(name, "Content-Type");
    // libcurl sends a header without a value only when it is written with a semicolon.
    list.add(value.empty() ? name + ";" : name + ": " + value);
  }
  if (call.method == "GET") return;
  list.add("Expect:");  // else a larger body waits a second for a "100 Continue"
  if (!has_content_type) list.add("Content-Type:");  // else libcurl claims it to be a form
}

long limited(std::chrono::milliseconds timeout) {
  // 0 would mean "no limit" to libcurl.
  constexpr std::int64_t kMost = std::numeric_limits<int>::max();
  return static_cast<long>(std::clamp<std::int64_t>(timeout.count(), 1, kMost));
}

void setMethod(CURL* handle, const HttpCall& call) {
  if (call.method == "GET") {
    curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
    return;
  }
  if (call.method == "HEAD") {
    curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
    return;
  }
  curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, call.method.c_str());
  if (call.method == "DELETE" && call.body.empty()) return;  // no Content-Length at all
  curl_easy_setopt(handle, CURLOPT_POST, 1L);
  curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(call.body.size()));
  curl_easy_setopt(handle, CURLOPT_POSTFIELDS, call.body.data());
}

void setLimits(CURL* handle, const Timeouts& timeouts, Transfer& transfer) {
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, limited(timeouts.connect));
  curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, limited(timeouts.total));
  curl_easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE,
                   static_cast<curl_off_t>(transfer.max_answer_bytes));
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &takeBody);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &takeHeaderLine);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, &transfer);
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, &isCancelled);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &transfer);
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
}

void setBehaviour(CURL* handle) {
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_DEFAULT_PROTOCOL, "http");
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(handle, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(handle, CURLOPT_PROXY, "");
  curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
  curl_easy_setopt(handle, CURLOPT_TCP_NODELAY, 1L);
  curl_easy_setopt(handle, CURLOPT_FORBID_REUSE, 1L);
  curl_easy_setopt(handle, CURLOPT_USERAGENT, "tavrel-controller");
  // A name lookup that hangs must not hold up a call past its timeout.
  curl_easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L);
}

HttpResult failed(CURLcode code) {
  HttpResult result;
  result.transport_error = curl_easy_strerror(code);
  result.transport_code = static_cast<int>(code);
  return result;
}

HttpResult answerOf(CURL* handle, Transfer& transfer) {
  HttpResult result;
  long status = 0;
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  result.status = static_cast<int>(status);
  const char* content_type = nullptr;
  curl_easy_getinfo(handle, CURLINFO_CONTENT_TYPE, &content_type);
  if (content_type != nullptr) result.content_type = content_type;
  result.body = std::move(transfer.body);
  return result;
}

}  // namespace

struct HttpClient::Impl {
  Handle takeHandle() TV_EXCLUDES(mutex) {
    {
      const platform::MutexLock lock(mutex);
      if (!idle.empty()) {
        Handle handle = std::move(idle.back());
        idle.pop_back();
        return handle;
      }
    }
    return Handle(curl_easy_init(), &curl_easy_cleanup);
  }

  void keepHandle(Handle handle) TV_EXCLUDES(mutex) {
    curl_easy_reset(handle.get());
    const platform::MutexLock lock(mutex);
    if (idle.size() < kMaxIdleHandles) idle.push_back(std::move(handle));
  }

  std::atomic<bool> cancelled{false};
  platform::Mutex mutex;
  std::vector<Handle> idle TV_GUARDED_BY(mutex);
};

HttpClient::HttpClient() : impl_(std::make_unique<Impl>()) {
  static std::once_flag initialized;
  std::call_once(initialized, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

HttpClient::~HttpClient() = default;

HttpResult HttpClient::send(const HttpCall& call, Timeouts timeouts) {
  if (impl_->cancelled) return failed(CURLE_ABORTED_BY_CALLBACK);
  if (!isWellFormed(call)) return failed(CURLE_URL_MALFORMAT);
  Handle handle = impl_->takeHandle();
  if (handle == nullptr) return failed(CURLE_FAILED_INIT);

  Transfer transfer{impl_->cancelled, call.max_answer_bytes};
  HeaderList headers;
  addHeaders(call, headers);
  setBehaviour(handle.get());
  setLimits(handle.get(), timeouts, transfer);
  setMethod(handle.get(), call);
  curl_easy_setopt(handle.get(), CURLOPT_URL, call.url.c_str());
  curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, headers.get());

  CURLcode code = CURLE_OK;
  {
    const platform::BlockingScope blocking;
    code = curl_easy_perform(handle.get());
  }
  if (transfer.too_large) code = CURLE_FILESIZE_EXCEEDED;
  HttpResult result = code == CURLE_OK ? answerOf(handle.get(), transfer) : failed(code);
  impl_->keepHandle(std::move(handle));
  return result;
}

HttpResult HttpClient::get(const std::string& url, Timeouts timeouts) {
  HttpCall call;
  call.url = url;
  return send(call, timeouts);
}

HttpResult HttpClient::postJson(const std::string& url, std::string body, Timeouts timeouts) {
  HttpCall call;
  call.method = "POST";
  call.url = url;
  call.headers = {{"Content-Type", "application/json"}};
  call.body = std::move(body);
  return send(call, timeouts);
}

void HttpClient::cancelAll() {
  impl_->cancelled = true;
}

std::string joinUrl(std::string base_url, const std::string& path) {
  while (!base_url.empty() && base_url.back() == '/') base_url.pop_back();
  return base_url + path;
}

std::string authorityOf(const std::string& url) {
  const auto scheme = url.find("://");
  const auto begin = scheme == std::string::npos ? 0 : scheme + 3;
  return url.substr(begin, url.find('/', begin) - begin);
}

bool isHttpUrl(std::string_view text) {
  if (platform::hasControls(text)) return false;
  for (const std::string_view scheme : {"http://", "https://"}) {
    if (!platform::equalsIgnoringCase(text.substr(0, scheme.size()), scheme)) continue;
    const std::string_view rest = text.substr(scheme.size());
    return !rest.substr(0, rest.find_first_of("/?#")).empty();
  }
  return false;
}

}  // namespace tavrel::net
