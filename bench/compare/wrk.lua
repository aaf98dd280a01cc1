-- A POST of BENCH_BODY with the headers of BENCH_HEADERS ("name: value" lines), or a plain GET
-- without a body; the figures come as one line of JSON.
local body = os.getenv("BENCH_BODY")
if body then
  wrk.method = "POST"
  wrk.body = body
  wrk.headers["Content-Type"] = "application/json"
end
for name, value in (os.getenv("BENCH_HEADERS") or ""):gmatch("([^:\n]+): ([^\n]+)") do
  wrk.headers[name] = value
end

function done(summary)
  local e = summary.errors
  io.write(string.format(
    '\nBENCH {"requests": %d, "seconds": %f, "bad_status": %d, "broken": %d}\n',
    summary.requests, summary.duration / 1e6, e.status,
    e.connect + e.read + e.write + e.timeout))
end
