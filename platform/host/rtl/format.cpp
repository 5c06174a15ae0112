#include "platform/host/rtl/format.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace host {
namespace {

// The bytes of the result; what does not fit is counted as cut.
class Output {
public:
    Output(char* buffer, SIZE_T size) : at_(buffer), begin_(buffer), end_(buffer + size - 1) {}

    void Put(char c) {
        if (at_ < end_) {
            *at_++ = c;
        } else {
            cut_ = true;
        }
    }
    void Fill(char c, int count) {
        for (; count > 0; --count) Put(c);
    }
    void PutCodePoint(char32_t c) {
        if (c < 0x80) return Put(static_cast<char>(c));
        const int more = c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
        static constexpr unsigned char kLeads[] = {0, 0xC0, 0xE0, 0xF0};
        Put(static_cast<char>(kLeads[more] | (c >> (6 * more))));
        for (int i = more - 1; i >= 0; --i) Put(static_cast<char>(0x80 | ((c >> (6 * i)) & 0x3F)));
    }
    SIZE_T Finish() {
        if (cut_) DropPartialCharacter();
        *at_ = 0;
        return static_cast<SIZE_T>(at_ - begin_);
    }

private:
    void DropPartialCharacter() {
        char* lead = at_;
        while (lead > begin_ && (static_cast<UCHAR>(lead[-1]) & 0xC0) == 0x80) --lead;
        if (lead == begin_) return;
        --lead;
        const int length = std::countl_one(static_cast<UCHAR>(*lead));  // 0 for a plain character
        if (length > at_ - lead) at_ = lead;
    }

    char* at_;
    char* begin_;
    char* end_;
    bool cut_ = false;
};

enum class Size { None, Short, Long, Wide, Bits64 };

struct Directive {
    bool left = false, zero = false, plus = false, space = false, alternate = false;
    int width = 0;
    int precision = -1;  // -1: none given
    Size size = Size::None;
};

struct AnsiString {
    USHORT length;
    USHORT maximumLength;
    const char* buffer;
};

class Formatter {
public:
    Formatter(char* buffer, SIZE_T size, va_list arguments) : out_(buffer, size) {
        va_copy(arguments_, arguments);
    }
    ~Formatter() { va_end(arguments_); }

    SIZE_T Run(const char* format) {
        while (*format != 0) {
            if (*format == '%') {
                format = One(format + 1);
            } else {
                out_.Put(*format++);
            }
        }
        return out_.Finish();
    }

private:
    // `at` is behind the percent sign; returns the place behind the directive.
    const char* One(const char* at) {
        Directive d;
        at = Flags(at, d);
        at = Width(at, d);
        at = SizeOf(at, d);
        if (*at == 0) return at;
        Convert(*at, d);
        return at + 1;
    }

    static const char* Flags(const char* at, Directive& d) {
        for (;; ++at) {
            switch (*at) {
                case '-':
                    d.left = true;
                    break;
                case '0':
                    d.zero = true;
                    break;
                case '+':
                    d.plus = true;
                    break;
                case ' ':
                    d.space = true;
                    break;
                case '#':
                    d.alternate = true;
                    break;
                default:
                    return at;
            }
        }
    }

    const char* Number(const char* at, int& value) {
        if (*at == '*') {
            value = va_arg(arguments_, int);
            return at + 1;
        }
        value = 0;
        for (; *at >= '0' && *at <= '9'; ++at) value = std::min(value * 10 + (*at - '0'), 100'000);
        return at;
    }

    const char* Width(const char* at, Directive& d) {
        at = Number(at, d.width);
        if (d.width < 0) {
            d.left = true;
            d.width = -d.width;
        }
        return *at == '.' ? Number(at + 1, d.precision) : at;
    }

    static const char* SizeOf(const char* at, Directive& d) {
        for (;; ++at) {
            if (*at == 'h') {
                d.size = Size::Short;
            } else if (*at == 'l') {
                d.size = d.size == Size::Long ? Size::Bits64 : Size::Long;
            } else if (*at == 'w') {
                d.size = Size::Wide;
            } else if (*at == 'I') {
                const bool narrow = at[1] == '3' && at[2] == '2';
                const bool wide = at[1] == '6' && at[2] == '4';
                d.size = narrow ? Size::Long : Size::Bits64;
                if (narrow || wide) at += 2;
            } else {
                return at;
            }
        }
    }

    void Convert(char type, const Directive& d) {
        const bool wide = d.size == Size::Long || d.size == Size::Wide;
        switch (type) {
            case 'd':
            case 'i':
                return Signed(d);
            case 'u':
                return Unsigned(d, 10, false);
            case 'x':
                return Unsigned(d, 16, false);
            case 'X':
                return Unsigned(d, 16, true);
            case 'o':
                return Unsigned(d, 8, false);
            case 'p':
                return Pointer(d);
            case 'c':
                return Character(d, wide);
            case 'C':
                return Character(d, d.size != Size::Short);
            case 's':
                return wide ? WideString(d) : NarrowString(d);
            case 'S':
                return d.size == Size::Short ? NarrowString(d) : WideString(d);
            case 'Z':
                return wide ? CountedWideString(d) : CountedNarrowString(d);
            default:
                return out_.Put(type);  // %% and whatever is no directive
        }
    }

    void Signed(const Directive& d) {
        LONGLONG value = 0;
        if (d.size == Size::Bits64) {
            value = va_arg(arguments_, LONGLONG);
        } else {
            value = va_arg(arguments_, LONG);
            if (d.size == Size::Short) value = static_cast<SHORT>(value);
        }
        const char* sign = value < 0 ? "-" : d.plus ? "+" : d.space ? " " : "";
        const auto magnitude = static_cast<ULONGLONG>(value);
        Digits(d, value < 0 ? 0 - magnitude : magnitude, 10, false, sign);
    }

    void Unsigned(const Directive& d, unsigned base, bool upper) {
        ULONGLONG value = 0;
        if (d.size == Size::Bits64) {
            value = va_arg(arguments_, ULONGLONG);
        } else {
            value = va_arg(arguments_, ULONG);
            if (d.size == Size::Short) value = static_cast<USHORT>(value);
        }
        const bool prefixed = d.alternate && value != 0;
        Digits(d, value, base, upper, !prefixed || base == 10 ? "" : base == 8 ? "0" : upper ? "0X" : "0x");
    }

    void Pointer(const Directive& d) {
        Directive full = d;
        full.precision = 16;
        Digits(full, reinterpret_cast<ULONG_PTR>(va_arg(arguments_, void*)), 16, true, "");
    }

    void Digits(const Directive& d, ULONGLONG value, unsigned base, bool upper, const char* prefix) {
        const char* alphabet = upper ? "0123456789ABCDEF" : "0123456789abcdef";
        char digits[24];
        int count = 0;
        for (; value != 0; value /= base) digits[count++] = alphabet[value % base];
        const int prefixLength = static_cast<int>(std::strlen(prefix));
        int zeros = std::max(0, (d.precision < 0 ? 1 : d.precision) - count);
        if (d.zero && !d.left && d.precision < 0) zeros = std::max(zeros, d.width - count - prefixLength);
        const int padding = d.width - zeros - count - prefixLength;
        if (!d.left) out_.Fill(' ', padding);
        while (*prefix != 0) out_.Put(*prefix++);
        out_.Fill('0', zeros);
        while (count > 0) out_.Put(digits[--count]);
        if (d.left) out_.Fill(' ', padding);
    }

    void Character(const Directive& d, bool wide) {
        const int value = va_arg(arguments_, int);
        const auto narrowCharacter = static_cast<char>(value);
        const auto wideCharacter = static_cast<WCHAR>(value);
        wide ? Wide(d, &wideCharacter, 1) : Narrow(d, &narrowCharacter, 1);
    }

    // The length of a string that ends at its zero or, never read beyond, at the precision.
    template <class Char>
    static SIZE_T Length(const Char* text, const Directive& d) {
        SIZE_T length = 0;
        while ((d.precision < 0 || length < static_cast<SIZE_T>(d.precision)) && text[length] != 0) ++length;
        return length;
    }
    static SIZE_T Limit(SIZE_T length, const Directive& d) {
        return d.precision < 0 ? length : std::min(length, static_cast<SIZE_T>(d.precision));
    }

    void Null(const Directive& d) { Narrow(d, "(null)", Limit(6, d)); }

    void NarrowString(const Directive& d) {
        const char* text = va_arg(arguments_, const char*);
        text == nullptr ? Null(d) : Narrow(d, text, Length(text, d));
    }
    void WideString(const Directive& d) {
        const WCHAR* text = va_arg(arguments_, const WCHAR*);
        text == nullptr ? Null(d) : Wide(d, text, Length(text, d));
    }
    void CountedNarrowString(const Directive& d) {
        const auto* string = va_arg(arguments_, const AnsiString*);
        if (string == nullptr || string->buffer == nullptr) return Null(d);
        Narrow(d, string->buffer, Limit(string->length, d));
    }
    void CountedWideString(const Directive& d) {
        const auto* string = va_arg(arguments_, const UNICODE_STRING*);
        if (string == nullptr || string->Buffer == nullptr) return Null(d);
        Wide(d, string->Buffer, Limit(string->Length / sizeof(WCHAR), d));
    }

    template <class Body>
    void Padded(const Directive& d, SIZE_T length, const Body& body) {
        const int padding = d.width - static_cast<int>(length);
        if (!d.left) out_.Fill(d.zero ? '0' : ' ', padding);
        body();
        if (d.left) out_.Fill(' ', padding);
    }
    void Narrow(const Directive& d, const char* text, SIZE_T length) {
        Padded(d, length, [&] {
            for (SIZE_T i = 0; i < length; ++i) out_.Put(text[i]);
        });
    }
    void Wide(const Directive& d, const WCHAR* text, SIZE_T length) {
        Padded(d, length, [&] {
            for (SIZE_T i = 0; i < length; ++i) {
                const bool pair =
                    i + 1 < length && (text[i] & 0xFC00) == 0xD800 && (text[i + 1] & 0xFC00) == 0xDC00;
                if (pair) {
                    out_.PutCodePoint(0x10000 + ((text[i] & 0x3FFu) << 10) + (text[i + 1] & 0x3FFu));
                    ++i;
                } else {
                    out_.PutCodePoint((text[i] & 0xF800) == 0xD800 ? 0xFFFD : text[i]);
                }
            }
        });
    }

    Output out_;
    va_list arguments_;
};

}  // namespace

SIZE_T FormatV(char* buffer, SIZE_T size, const char* format, va_list arguments) {
    return Formatter(buffer, size, arguments).Run(format);
}

SIZE_T Format(char* buffer, SIZE_T size, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const SIZE_T length = FormatV(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

}  // namespace host
