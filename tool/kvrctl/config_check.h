// Everything in a configuration text that the driver would silently take otherwise than it reads.
#pragma once
#include <cstddef>
#include <string>
#include <vector>
#include "tool/kvrctl/date.h"

namespace ctl {

enum class Severity {
    Warning,  // ignored, and harmless if it was meant so
    Error,    // the driver does not do what the line says
};

struct Finding {
    std::size_t line;  // counts from 1
    Severity severity;
    std::string text;
};

// In the order of the lines. Empty: the driver takes the text as it reads. `text` is what the driver gets,
// without the zeros that fill its buffer. With the machine's clock dates that are over are found too.
std::vector<Finding> CheckConfig(const std::u16string& text, const Clock* clock = nullptr);

bool HasErrors(const std::vector<Finding>& findings);

}  // namespace ctl
