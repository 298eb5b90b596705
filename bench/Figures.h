/// Samples and the table that they end in.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace bench {

using Clock = std::chrono::system_clock;

class Samples {
  public:
    void add(double value) { m_values.push_back(value); }
    /// In milliseconds.
    void add(Clock::duration duration);

    bool isEmpty() const { return m_values.empty(); }
    double median() const { return at(0.5); }
    double p95() const { return at(0.95); }

  private:
    double at(double share) const;

    std::vector<double> m_values;
};

/// One line of the table. The aim is for the ratio of the medians, or for the figure itself where
/// there is no reference; 0 or more is met when the figure does not exceed it, less is no aim.
struct Row {
    std::string what;
    Samples own;
    std::string beside;
    Samples reference;
    double aim = -1;
};

class Table {
  public:
    void add(Row row);
    void print() const;

  private:
    std::vector<std::vector<std::string>> m_lines{
        {"", "alarmd", "p95", "reference", "median", "p95", "ratio", "aim", ""}};
};

}  // namespace bench
