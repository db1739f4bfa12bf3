// Captures evm_log lines for the life of the object.
#pragma once

#include "evmLog.h"

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
    std::vector<std::string> texts() const
    {
        std::vector<std::string> out;
        for (const auto &l : lines()) {
            out.push_back(l.text);
        }
        return out;
    }
    // The texts one module logged, in order.
    std::vector<std::string> textsFrom(const std::string &source) const
    {
        std::vector<std::string> out;
        for (const auto &l : lines()) {
            if (l.source == source) {
                out.push_back(l.text);
            }
        }
        return out;
    }
    // The level of the first line with this text; -1 when there is none.
    int levelOf(const std::string &text) const
    {
        for (const auto &l : lines()) {
            if (l.text == text) {
                return l.level;
            }
        }
        return -1;
    }
    bool contains(const std::string &text) const
    {
        for (const auto &l : lines()) {
            if (l.text == text) {
                return true;
            }
        }
        return false;
    }
    size_t count(const std::string &text) const
    {
        size_t n = 0;
        for (const auto &l : lines()) {
            n += l.text == text ? 1 : 0;
        }
        return n;
    }
    void clear() { lines().clear(); }

private:
    static void sink(int level, const char *source, int, const char *text)
    {
        lines().push_back({level, source, text});
    }
};
