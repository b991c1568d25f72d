#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "libvurohelper/logging.h"

namespace miniprobe {

// The lines that the module's logs write at severity error or worse: the module's own
// words for a failure, seen whether or not the logs go to files. One at a time in a
// process: the framework library keeps a single observer.
class failure_lines {
public:
    struct line {
        std::string file;
        int severity;
        std::string text;
    };

    failure_lines() {
        namespace vuro = brenholt::monitoring_modules;
        vuro::libvurohelper::logging::observe_lines(
            [this](const std::string& file, vuro::liblog::severity level, const std::string& text) {
                std::lock_guard<std::mutex> lock(mutex_);
                lines_.push_back({file, static_cast<int>(level), text});
            },
            vuro::liblog::error);
    }
    ~failure_lines() {
        namespace vuro = brenholt::monitoring_modules;
        vuro::libvurohelper::logging::observe_lines(vuro::libvurohelper::logging::line_observer{}, vuro::liblog::error);
    }
    failure_lines(const failure_lines&) = delete;
    failure_lines& operator=(const failure_lines&) = delete;

    // What came since the last call.
    std::vector<line> take() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<line> out;
        out.swap(lines_);
        return out;
    }

private:
    std::mutex mutex_;
    std::vector<line> lines_;
};

// The texts of the lines, each once, in order; `fallback` when there are none.
inline std::vector<std::string> reasons(const std::vector<failure_lines::line>& lines, const std::string& fallback) {
    std::vector<std::string> out;
    for (const auto& l : lines)
        if (std::find(out.begin(), out.end(), l.text) == out.end()) out.push_back(l.text);
    if (out.empty() && !fallback.empty()) out.push_back(fallback);
    return out;
}

}  // namespace miniprobe
