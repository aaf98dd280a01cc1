#include "controller/routes/account_pages.h"

#include "identity/crypto.h"
#include "platform/text.h"

namespace tavrel::controller {
namespace {

using platform::escapeHtml;

constexpr const char* kStyle = R"(
:root { color-scheme: light dark; }
body { box-sizing: border-box; max-width: 500px; margin: 12vh auto 0; padding: 0 24px;
  font: 16px/1.5 system-ui, -apple-system, "Segoe UI", Roboto, sans-serif;
  text-align: center; overflow-wrap: anywhere; }
h1 { font-size: 1.5rem; margin: 0 0 .75rem; }
p { margin: 0 0 .75rem; }
.success { color: #15803d; }
.pending { color: #b45309; }
.problem { color: #b91c1c; }
@media (prefers-color-scheme: dark) {
  .success { color: #4ade80; } .pending { color: #fbbf24; } .problem { color: #f87171; }
}
form { text-align: left; margin-top: 1.5rem; }
label { display: block; font-weight: 600; margin-bottom: 1rem; }
input { display: block; box-sizing: border-box; width: 100%; margin-top: .25rem;
  padding: .6rem .75rem; font: inherit; border: 1px solid #9ca3af; border-radius: 6px; }
button { width: 100%; padding: .7rem; font: inherit; font-weight: 600; color: #fff;
  background: #1d4ed8; border: 0; border-radius: 6px; cursor: pointer; }
button:disabled { opacity: .6; cursor: default; }
#result { min-height: 1.5rem; margin-top: 1rem; }
)";

constexpr const char* kResetForm = R"(
<label>New password
<input type="password" id="password" autocomplete="new-password" minlength="8" required autofocus>
</label>
<label>Repeat the new password
<input type="password" id="repeated" autocomplete="new-password" minlength="8" required>
</label>
<button>Reset Password</button>
</form>
<p id="result" role="status"></p>
)";

constexpr const char* kResetScript = R"(
const form = document.getElementById("reset");
const result = document.getElementById("result");
const button = form.querySelector("button");
function show(text, tone) {
  result.textContent = text;
  result.className = tone;
}
form.addEventListener("submit", async (event) => {
  event.preventDefault();
  const password = document.getElementById("password").value;
  if (password !== document.getElementById("repeated").value) {
    show("Passwords do not match", "problem");
    return;
  }
  button.disabled = true;
  show("", "");
  try {
    const answer = await fetch("/api/v1/auth/reset-password", {
      method: "POST",
      headers: { "Content-Type": "application/json" },
      body: JSON.stringify({ token: form.dataset.token, new_password: password })
    });
    if (answer.ok) {
      form.hidden = true;
      show("Password reset successfully. You can now log in.", "success");
      return;
    }
    const refusal = await answer.json().catch(() => ({}));
    show(refusal.error || "Reset failed", "problem");
  } catch (failure) {
    show("Network error", "problem");
  }
  button.disabled = false;
});
)";

/// A page with `content`, which is HTML, between its own style and script.
api::Response page(const std::string& title, const std::string& content,
                   const std::string& script = "") {
  const std::string nonce = identity::crypto::generateRandomHex(16);
  std::string html =
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>" +
      escapeHtml(title) + " - Tavrel</title>\n<style nonce=\"" + nonce + "\">" + kStyle +
      "</style>\n</head>\n<body>\n" + content + "\n";
  if (!script.empty()) html += "<script nonce=\"" + nonce + "\">" + script + "</script>\n";
  api::Response response = api::Response::text(html + "</body>\n</html>\n", "text/html");
  response.headers["Content-Security-Policy"] =
      "default-src 'none'; style-src 'nonce-" + nonce + "'; script-src 'nonce-" + nonce +
      "'; connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
  // The address has a token in it.
  response.headers["Referrer-Policy"] = "no-referrer";
  response.headers["Cache-Control"] = "no-store";
  response.headers["X-Content-Type-Options"] = "nosniff";
  return response;
}

std::string heading(const char* tone, const std::string& text) {
  return std::string("<h1 class=\"") + tone + "\">" + escapeHtml(text) + "</h1>\n";
}

}  // namespace

api::Response problemPage(const std::string& title, const std::string& sentence) {
  return page(title, heading("problem", title) + "<p>" + escapeHtml(sentence) + "</p>");
}

api::Response emailVerifiedPage(const std::string& email, bool approved) {
  const std::string next = approved ? "<p>Your account is active. You can now log in.</p>"
                                    : "<p class=\"pending\">Your email is verified. "
                                      "Your account is pending admin approval.</p>";
  return page("Email Verified", heading("success", "Email Verified") + "<p>Your email <strong>" +
                                    escapeHtml(email) + "</strong> has been verified.</p>\n" +
                                    next);
}

api::Response resetPasswordPage(const std::string& token) {
  return page("Reset Password",
              "<h1>Reset Password</h1>\n<form id=\"reset\" data-token=\"" + escapeHtml(token) +
                  "\">" + kResetForm,
              kResetScript);
}

}  // namespace tavrel::controller
