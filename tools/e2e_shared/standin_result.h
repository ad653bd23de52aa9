#pragma once
// What the Outlook stand-in did, one line per step, written to its result
// file: "step=<name>" followed by tab-separated key=value pairs (values
// escaped as in the drop report). The tests and the benchmark read it back.
#include <map>
#include <string>
#include <vector>

struct StandInStep {
    std::map<std::string, std::string> values;  // includes "step"

    const std::string& name() const;
    std::string value(const std::string& key) const;  // empty when absent
    long long number(const std::string& key, long long fallback = -1) const;  // decimal or 0x hex
    double real(const std::string& key, double fallback = -1) const;
};

class StandInResultWriter {
public:
    explicit StandInResultWriter(std::wstring path) : path_(std::move(path)) {}
    // Appends one line now, so a stand-in that dies later leaves its earlier steps.
    void write(const std::string& step, const std::vector<std::pair<std::string, std::string>>& values) const;

private:
    std::wstring path_;
};

std::vector<StandInStep> readStandInResult(const std::wstring& path);
// The steps of a name, in order.
std::vector<StandInStep> stepsNamed(const std::vector<StandInStep>& steps, const std::string& name);

std::string hexResult(long value);
