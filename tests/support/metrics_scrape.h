#pragma once
// A scrape of a hub's /metrics over real HTTP, read by the Prometheus client library's own parser
// (tests/unit/scrape_metrics.py, run by the system's Python, which ORVALE_SYSTEM_PYTHON names).

#include <string>
#include <vector>

#include "child_process.h"

namespace orvale::test {

// Empty when the scrape of `url` met every expectation of `expected` (the JSON object
// scrape_metrics.py takes), else what went wrong; `caFile` checks an https:// hub's certificate.
inline std::string scrapeMetrics(const std::string& url, const std::string& expected,
                                 const std::string& caFile = {}) {
    std::vector<std::string> argv{ORVALE_SYSTEM_PYTHON,
                                  sourceDir() + "/tests/unit/scrape_metrics.py", url, expected};
    if (!caFile.empty())
        argv.insert(argv.begin(), {"env", "SSL_CERT_FILE=" + caFile});
    ChildProcess python(std::move(argv));
    const auto exit = python.waitExit(std::chrono::seconds(10));
    if (exit == 0)
        return {};
    std::string report = "exit " + (exit ? std::to_string(*exit) : "none") + ": ";
    for (const auto& line : python.lines())
        report += line + "; ";
    return report + python.errors();
}

}  // namespace orvale::test
