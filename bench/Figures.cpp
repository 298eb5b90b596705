#include "bench/Figures.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace bench {
namespace {

std::string toText(double value) {
    char text[32];
    std::snprintf(text, sizeof text, value == std::floor(value) ? "%.0f" : "%.2f", value);
    return text;
}

}  // namespace

void Samples::add(Clock::duration duration) {
    add(std::chrono::duration<double, std::milli>(duration).count());
}

double Samples::at(double share) const {
    std::vector<double> sorted = m_values;
    std::sort(sorted.begin(), sorted.end());
    const double rank = std::ceil(share * static_cast<double>(sorted.size()));
    return sorted.at(static_cast<std::size_t>(std::max(rank, 1.0)) - 1);
}

void Table::add(Row row) {
    std::vector<std::string> line{row.what, toText(row.own.median()), toText(row.own.p95()),
                                  row.beside};
    double figure = row.own.median();
    if (row.reference.isEmpty()) {
        line.insert(line.end(), {"", "", ""});
    } else {
        figure /= row.reference.median();
        line.insert(line.end(), {toText(row.reference.median()), toText(row.reference.p95()),
                                 row.reference.median() > 0 ? toText(figure) : ""});
    }
    line.insert(line.end(), {row.aim < 0 ? "" : toText(row.aim),
                             row.aim < 0 ? "" : (figure <= row.aim ? "met" : "missed")});
    m_lines.push_back(std::move(line));
}

void Table::print() const {
    std::vector<std::size_t> widths(m_lines.front().size(), 3);
    for (const auto& line : m_lines) {
        for (std::size_t i = 0; i < line.size(); ++i) {
            widths[i] = std::max(widths[i], line[i].size());
        }
    }
    for (const auto& line : m_lines) {
        std::string text = "|";
        std::string rule = "|";
        for (std::size_t i = 0; i < line.size(); ++i) {
            text += " " + line[i] + std::string(widths[i] - line[i].size(), ' ') + " |";
            rule += std::string(widths[i] + 2, '-') + "|";
        }
        std::printf("%s\n%s", text.c_str(), &line == &m_lines.front() ? (rule + "\n").c_str() : "");
    }
}

}  // namespace bench
