// Captures evm_log lines for the life of the object.
#pragma once

#include "evmLog.h"

#include <algorithm>
#include <string>
#include <vector>

struct capturedLogLine {
    int level;
    std::string source;
    std::string text;
};

class logCapture {
public:
    logCapture()
    {
        lines().clear();
        evmLogSetSink(&logCapture::sink);
    }
    ~logCapture() { evmLogSetSink(nullptr); }
    logCapture(const logCapture &) = delete;
    logCapture &operator=(const logCapture &) = delete;

    static std::vector<capturedLogLine> &lines()
    {
        static std::vector<capturedLogLine> all;
        return all;
    }
    std::vector<std::string> texts() const { return __texts("", false); }
    // The texts one module logged, in order.
    std::vector<std::string> textsFrom(const std::string &source) const { return __texts(source, false); }
    // The lines of one module (all when empty) as "level text".
    std::vector<std::string> leveled(const std::string &source = "") const { return __texts(source, true); }
    // The level of the first line with this text; -1 when there is none.
    int levelOf(const std::string &text) const
    {
        auto line = std::ranges::find(lines(), text, &capturedLogLine::text);
        return line != lines().end() ? line->level : -1;
    }
    bool contains(const std::string &text) const { return count(text) > 0; }
    size_t count(const std::string &text) const { return std::ranges::count(lines(), text, &capturedLogLine::text); }
    void clear() { lines().clear(); }

private:
    static void sink(int level, const char *source, int, const char *text) { lines().push_back({level, source, text}); }
    // All texts, or those of one source; with their level in front when asked.
    static std::vector<std::string> __texts(const std::string &source, bool withLevel)
    {
        std::vector<std::string> out;
        for (const auto &l : lines()) {
            if (source.empty() || l.source == source) {
                out.push_back(withLevel ? std::to_string(l.level) + " " + l.text : l.text);
            }
        }
        return out;
    }
};
