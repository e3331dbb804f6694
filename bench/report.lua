-- Prints wrk's results as one line of key=value pairs for bench/measure.py to read.
done = function(summary, latency, requests)
  local e = summary.errors
  io.write(string.format(
    "WRK requests=%d duration_us=%d p50_us=%d p99_us=%d connect=%d read=%d write=%d timeout=%d status=%d\n",
    summary.requests, summary.duration, latency:percentile(50), latency:percentile(99),
    e.connect, e.read, e.write, e.timeout, e.status))
end
