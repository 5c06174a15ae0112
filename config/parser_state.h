// What one parse of the configuration text knows. Private to the parser's files.
#pragma once
#include "config/parser.h"
#include "formats/config_settings.h"

struct CONFIG_PARSER {
    PWCHAR Text;
    LARGE_INTEGER Now;  // local time
    // The switches reach the globals when the list is complete, so that no other thread acts on half a
    // configuration.
    config::Settings Settings;
};

// Over the text: whoever writes through it changes the text.
UNICODE_STRING TextOf(const CONFIG_PARSER* parser, const config::Span& span);

// section.cpp: hands the pending section, if it has settings, to the protected-volume list.
void SaveSection(const CONFIG_PARSER* parser);

// discard_date.cpp: a discard date's line, after what it meant to the settings.
void ApplyDiscardDate(CONFIG_PARSER* parser, const config::Line& line, config::Effect effect);
