#include "net/smtp_client.h"

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>

#include "platform/blocking.h"
#include "platform/clock.h"
#include "platform/socket_wait.h"
#include "platform/text.h"

namespace tavrel::net {
namespace {

using Handle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
using List = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

/// What libcurl's callbacks know about the mail under way.
struct Delivery {
  const std::atomic<bool>& cancelled;
  const platform::SteadyTime deadline;
  std::string_view unsent;
};

std::size_t smtpReadCallback(char* buffer, std::size_t size, std::size_t count, void* user) {
  auto& delivery = *static_cast<Delivery*>(user);
  const std::size_t taken = std::min(size * count, delivery.unsent.size());
  std::memcpy(buffer, delivery.unsent.data(), taken);
  delivery.unsent.remove_prefix(taken);
  return taken;
}

/// The deadline is here a second time because libcurl's own does not cover the farewell.
int isOver(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  const auto& delivery = *static_cast<Delivery*>(user);
  return delivery.cancelled || platform::steadyNow() > delivery.deadline ? 1 : 0;
}

std::size_t dropAnswer(char*, std::size_t size, std::size_t count, void*) {
  return size * count;
}

bool isPort(std::string_view text) {
  return !text.empty() && text.size() <= 5 &&
         text.find_first_not_of("0123456789") == std::string_view::npos;
}

/// Nothing in it makes another URL of "smtp://host:port".
bool isHost(std::string_view text) {
  return !text.empty() && !platform::hasControls(text) &&
         text.find_first_of(" /?#@\\%") == std::string_view::npos;
}

/// The address of "address" or "Name <address>"; empty when it is neither.
std::string bareAddress(const std::string& text) {
  if (platform::hasControls(text)) return "";
  const std::size_t begin = text.ends_with('>') ? text.find('<') : std::string::npos;
  const std::string address =
      begin == std::string::npos ? text : text.substr(begin + 1, text.size() - begin - 2);
  return address.find_first_of(" <>") == std::string::npos ? address : "";
}

std::string urlOf(const SmtpServer& server) {
  const bool bare_ipv6 = server.host.find(':') != std::string::npos && server.host.front() != '[';
  const std::string host = bare_ipv6 ? '[' + server.host + ']' : server.host;
  const char* scheme = server.encryption == SmtpServer::Encryption::kTls ? "smtps://" : "smtp://";
  return scheme + host + ':' + server.port;
}

void setServer(CURL* handle, const SmtpServer& server) {
  curl_easy_setopt(handle, CURLOPT_URL, urlOf(server).c_str());
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "smtp,smtps");
  curl_easy_setopt(handle, CURLOPT_PROXY, "");
  if (!server.user.empty()) {
    curl_easy_setopt(handle, CURLOPT_USERNAME, server.user.c_str());
    curl_easy_setopt(handle, CURLOPT_PASSWORD, server.password.c_str());
    curl_easy_setopt(handle, CURLOPT_LOGIN_OPTIONS, "AUTH=LOGIN");
  }
  if (server.encryption == SmtpServer::Encryption::kStartTls) {
    curl_easy_setopt(handle, CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
  }
  const char* authorities = std::getenv("SSL_CERT_FILE");
  if (authorities != nullptr && *authorities != '\0') {
    curl_easy_setopt(handle, CURLOPT_CAINFO, authorities);
  }
}

void setMessage(CURL* handle, const std::string& sender, curl_slist* recipients,
                Delivery& delivery) {
  curl_easy_setopt(handle, CURLOPT_MAIL_FROM, sender.c_str());
  curl_easy_setopt(handle, CURLOPT_MAIL_RCPT, recipients);
  curl_easy_setopt(handle, CURLOPT_UPLOAD, 1L);
  curl_easy_setopt(handle, CURLOPT_READFUNCTION, &smtpReadCallback);
  curl_easy_setopt(handle, CURLOPT_READDATA, &delivery);
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &dropAnswer);
}

void setLimits(CURL* handle, const Timeouts& timeouts, Delivery& delivery) {
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L);
  curl_easy_setopt(handle, CURLOPT_FORBID_REUSE, 1L);
  // 0 would mean "no limit" to libcurl.
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS,
                   static_cast<long>(std::max<std::int64_t>(1, timeouts.connect.count())));
  curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS,
                   static_cast<long>(std::max<std::int64_t>(1, timeouts.total.count())));
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, &isOver);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &delivery);
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
}

}  // namespace

struct SmtpClient::Impl {
  std::atomic<bool> cancelled{false};
};

SmtpClient::SmtpClient() : impl_(std::make_unique<Impl>()) {
  static std::once_flag initialized;
  std::call_once(initialized, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

SmtpClient::~SmtpClient() = default;

std::string SmtpClient::send(const SmtpServer& server, const SmtpMessage& message,
                             Timeouts timeouts) {
  if (impl_->cancelled) return curl_easy_strerror(CURLE_ABORTED_BY_CALLBACK);
  const std::string sender = bareAddress(message.sender);
  const std::string recipient = bareAddress(message.recipient);
  if (!isHost(server.host) || !isPort(server.port)) return curl_easy_strerror(CURLE_URL_MALFORMAT);
  if (sender.empty() || recipient.empty()) return "Not a mail address";

  const Handle handle(curl_easy_init(), &curl_easy_cleanup);
  const List recipients(curl_slist_append(nullptr, recipient.c_str()), &curl_slist_free_all);
  if (handle == nullptr || recipients == nullptr) return curl_easy_strerror(CURLE_FAILED_INIT);
  Delivery delivery{impl_->cancelled, platform::deadlineAfter(timeouts.total), message.text};
  setServer(handle.get(), server);
  setMessage(handle.get(), sender, recipients.get(), delivery);
  setLimits(handle.get(), timeouts, delivery);

  const platform::BlockingScope blocking;
  const CURLcode code = curl_easy_perform(handle.get());
  return code == CURLE_OK ? "" : curl_easy_strerror(code);
}

void SmtpClient::cancelAll() {
  impl_->cancelled = true;
}

}  // namespace tavrel::net
