// What the runner and the harness driver say to each other. Both have CTL_CODE from their own headers.
#pragma once

inline constexpr wchar_t kStoryService[] = L"kvrstory";  // the harness driver
inline constexpr wchar_t kDriverService[] = L"kvr";      // the driver under test, which the harness loads

// Everything that a boot leaves for the next one, besides the registry: media, and the files of \SystemRoot.
#define STORY_FOLDER L"C:\\kvrstory"

// Plays one boot of a story. In: STORY_PLAY. Out: STORY_OUTCOME and its text.
#define IOCTL_STORY_PLAY CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, METHOD_BUFFERED, FILE_ANY_ACCESS)

struct STORY_PLAY {
    char Name[60];  // ended by a zero
    unsigned Boot;  // from 0
};

struct STORY_OUTCOME {
    unsigned Boots;       // of the story; 0: there is no such story, or no such boot
    unsigned Checks;      // noted in this boot
    unsigned Failures;    // of these
    unsigned TextLength;  // bytes of text behind this record: a line for each failure, the driver's last lines
};
