// The processor, and how many work items the repair engine runs at once.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quelm {

class Processor {
public:
    static Processor& shared();
    /// Reads the brand string, cores and threads of the first processor listed in the text of
    /// /proc/cpuinfo ("model name", "cpu cores", "siblings").
    static Processor fromCpuInfo(std::string_view cpuInfo);

    const std::optional<std::string>& name() const { return name_; }
    std::optional<std::int64_t> numcore() const { return numcore_; }
    std::optional<std::int64_t> numthread() const { return numthread_; }
    /// Starts as the number of logical processors; a change applies from the next pass.
    std::int64_t maxthread() const { return maxthread_.load(); }
    void setMaxthread(std::int64_t count) { maxthread_.store(count); }

    /// "Intel(R) Core(TM) i7-7700K CPU @ 4.20GHz 4C8T"; "Unknown" without a name.
    std::string description() const;

    Processor(const Processor& other);

private:
    Processor();

    std::optional<std::string> name_;
    std::optional<std::int64_t> numcore_;
    std::optional<std::int64_t> numthread_;
    std::atomic<std::int64_t> maxthread_;
};

} // namespace quelm
