#include "items/rtf_text.h"

#include <algorithm>
#include <map>
#include <optional>
#include <vector>

namespace {

constexpr size_t maxGroupDepth = 256;
constexpr size_t maxWordLength = 32;
constexpr uint32_t defaultAnsiCodePage = CodePage::western;

struct Token {
    enum Kind { End, Open, Close, Word, Symbol, Byte, Text } kind = End;
    std::string_view word;
    std::optional<long> parameter;
    char value = 0; // the symbol, the \'hh byte or the text byte
};

bool isLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

int hexValue(char c)
{
    if (isDigit(c))
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

class Tokenizer {
public:
    explicit Tokenizer(std::string_view rtf) : rtf_(rtf) {}

    Token next()
    {
        Token token;
        while (at_ < rtf_.size() && (rtf_[at_] == '\r' || rtf_[at_] == '\n'))
            ++at_;
        if (at_ >= rtf_.size())
            return token;
        const char c = rtf_[at_++];
        if (c == '{') {
            token.kind = Token::Open;
        } else if (c == '}') {
            token.kind = Token::Close;
        } else if (c != '\\') {
            token.kind = Token::Text;
            token.value = c;
        } else if (at_ >= rtf_.size()) {
            token.kind = Token::End;
        } else if (isLetter(rtf_[at_])) {
            readWord(token);
        } else {
            const char symbol = rtf_[at_++];
            if (symbol == '\'') {
                const int high = at_ < rtf_.size() ? hexValue(rtf_[at_]) : -1;
                const int low = at_ + 1 < rtf_.size() ? hexValue(rtf_[at_ + 1]) : -1;
                if (high >= 0 && low >= 0) {
                    token.kind = Token::Byte;
                    token.value = static_cast<char>(high << 4 | low);
                    at_ += 2;
                } else {
                    token.kind = Token::Symbol; // a broken escape: its digit, if any, and nothing else
                    at_ += high >= 0 ? 1 : 0;
                }
            } else {
                token.kind = Token::Symbol;
                token.value = symbol == '\r' || symbol == '\n' ? '\n' : symbol;
            }
        }
        return token;
    }

    // \binN: the next N bytes are data, not RTF.
    void skipBytes(long count) { at_ += static_cast<size_t>(std::clamp<long>(count, 0, long(rtf_.size() - at_))); }

private:
    void readWord(Token& token)
    {
        const size_t start = at_;
        while (at_ < rtf_.size() && isLetter(rtf_[at_]) && at_ - start < maxWordLength)
            ++at_;
        token.kind = Token::Word;
        token.word = rtf_.substr(start, at_ - start);
        const bool negative = at_ < rtf_.size() && rtf_[at_] == '-';
        const size_t digits = at_ + (negative ? 1 : 0);
        if (digits < rtf_.size() && isDigit(rtf_[digits])) {
            at_ = digits;
            long value = 0;
            // Parameters are 16-bit in practice; longer digit runs are cut off.
            for (size_t count = 0; at_ < rtf_.size() && isDigit(rtf_[at_]); ++at_, ++count) {
                if (count < 9)
                    value = value * 10 + (rtf_[at_] - '0');
            }
            token.parameter = negative ? -value : value;
        }
        if (at_ < rtf_.size() && rtf_[at_] == ' ')
            ++at_; // the delimiter belongs to the control word
    }

    std::string_view rtf_;
    size_t at_ = 0;
};

// Destinations whose text is never part of the body.
bool isHiddenDestination(std::string_view word)
{
    static constexpr std::string_view hidden[] = {
        "author",      "buptim",     "colortbl",  "comment",    "creatim",   "datastore",        "doccomm",
        "fldinst",     "footer",     "footerf",   "footerl",    "footerr",   "generator",        "header",
        "headerf",     "headerl",    "headerr",   "info",       "keywords",  "latentstyles",     "listoverridetable",
        "listtable",   "nonshppict", "object",    "operator",   "pict",      "printim",          "revtbl",
        "revtim",      "rsidtbl",    "stylesheet", "subject",   "themedata", "colorschememapping", "title",
        "xmlnstbl",    "filetbl",    "shpinst",   "objdata",    "xe",        "tc",               "bkmkstart",
        "bkmkend",
    };
    return std::find(std::begin(hidden), std::end(hidden), word) != std::end(hidden);
}

std::optional<char16_t> characterOfWord(std::string_view word)
{
    static constexpr struct {
        std::string_view word;
        char16_t character;
    } characters[] = {
        {"tab", u'\t'},          {"cell", u'\t'},         {"emdash", u'\u2014'},   {"endash", u'\u2013'},
        {"lquote", u'\u2018'},   {"rquote", u'\u2019'},   {"ldblquote", u'\u201C'}, {"rdblquote", u'\u201D'},
        {"bullet", u'\u2022'},   {"emspace", u'\u2003'},  {"enspace", u'\u2002'},  {"qmspace", u'\u2005'},
        {"zwj", u'\u200D'},      {"zwnj", u'\u200C'},     {"ltrmark", u'\u200E'},  {"rtlmark", u'\u200F'},
    };
    for (const auto& entry : characters) {
        if (entry.word == word)
            return entry.character;
    }
    return std::nullopt;
}

bool isLineBreakWord(std::string_view word)
{
    return word == "par" || word == "line" || word == "row" || word == "sect" || word == "page";
}

struct GroupState {
    bool hidden = false;   // a destination that is not part of the body
    bool htmlRtf = false;  // \htmlrtf: there for RTF readers only
    bool htmlTag = false;  // \*\htmltag: the encapsulated HTML's markup
    bool fontTable = false;
    long font = -1;
    int unicodeSkip = 1; // \ucN: fallback bytes behind each \uN
};

class BodyReader {
public:
    BodyReader(std::string_view rtf, RtfBodyKind kind, const CodePageDecoder& decode)
        : tokens_(rtf), kind_(kind), decode_(decode)
    {
    }

    std::u16string read()
    {
        for (Token token = tokens_.next(); token.kind != Token::End; token = tokens_.next()) {
            const bool atGroupStart = groupStart_;
            groupStart_ = false;
            switch (token.kind) {
            case Token::Open: openGroup(); break;
            case Token::Close: closeGroup(); break;
            case Token::Word: word(token, atGroupStart); break;
            case Token::Symbol: symbol(token.value, atGroupStart); break;
            case Token::Byte: byte(token.value); break;
            case Token::Text: byte(token.value); break;
            case Token::End: break;
            }
        }
        flush();
        return std::move(out_);
    }

private:
    bool encapsulated() const { return kind_ != RtfBodyKind::Rtf; }

    bool visible() const
    {
        if (state_.hidden)
            return false;
        return !encapsulated() || state_.htmlTag || !state_.htmlRtf;
    }

    uint32_t codePageOf(const GroupState& state) const
    {
        const auto found = fontCodePages_.find(state.font);
        return found != fontCodePages_.end() && found->second ? found->second : ansiCodePage_;
    }
    uint32_t codePage() const { return codePageOf(state_); }

    void openGroup()
    {
        skipping_ = 0;
        if (groups_.size() >= maxGroupDepth) {
            ++overflow_;
            return;
        }
        groups_.push_back(state_);
        groupStart_ = true;
        ignorable_ = false;
    }

    void closeGroup()
    {
        skipping_ = 0;
        if (overflow_ > 0) {
            --overflow_;
            return;
        }
        if (groups_.empty())
            return;
        if (codePage() != codePageOf(groups_.back()))
            flush();
        state_ = groups_.back();
        groups_.pop_back();
    }

    // The first control word of a group may make it a destination.
    bool destination(std::string_view word, const std::optional<long>& parameter)
    {
        if (encapsulated() && (word == "htmltag" || word == "mhtmltag")) {
            const long number = parameter.value_or(-1);
            state_.htmlTag = true;
            if (word == "mhtmltag") {
                // It stands for the \htmltag with its number that follows.
                replacedTag_ = number;
            } else if (replacedTag_ && *replacedTag_ == number) {
                state_.hidden = true;
                replacedTag_.reset();
            }
            return true;
        }
        if (word == "fonttbl") {
            state_.hidden = true;
            state_.fontTable = true;
            return true;
        }
        if (ignorable_ || isHiddenDestination(word)) {
            state_.hidden = true;
            return true;
        }
        return false;
    }

    void word(const Token& token, bool atGroupStart)
    {
        const std::string_view word = token.word;
        if (atGroupStart && destination(word, token.parameter))
            return;
        if (state_.fontTable) {
            fontTableWord(word, token.parameter);
            return;
        }
        if (word == "u" && token.parameter) {
            unicodeUnit(static_cast<char16_t>(*token.parameter & 0xFFFF));
            skipping_ = state_.unicodeSkip;
        } else if (word == "uc" && token.parameter) {
            state_.unicodeSkip = static_cast<int>(std::clamp<long>(*token.parameter, 0, 16));
        } else if (word == "bin" && token.parameter) {
            tokens_.skipBytes(*token.parameter);
        } else if (word == "htmlrtf") {
            state_.htmlRtf = token.parameter.value_or(1) != 0;
        } else if (word == "f" && token.parameter) {
            setFont(*token.parameter);
        } else if (word == "deff" && token.parameter && groups_.size() <= 1) {
            setFont(*token.parameter);
        } else if (word == "ansicpg" && token.parameter && *token.parameter > 0) {
            flush();
            ansiCodePage_ = static_cast<uint32_t>(*token.parameter);
        } else if (word == "mac" || word == "pc" || word == "pca") {
            flush();
            ansiCodePage_ = word == "mac" ? 10000 : word == "pc" ? 437 : 850;
        } else if (isLineBreakWord(word)) {
            text(u"\r\n");
        } else if (const auto character = characterOfWord(word)) {
            text(std::u16string(1, *character));
        }
    }

    void fontTableWord(std::string_view word, const std::optional<long>& parameter)
    {
        if (!parameter)
            return;
        if (word == "f")
            definingFont_ = *parameter;
        else if (word == "fcharset")
            fontCodePages_[definingFont_] = codePageOfRtfCharset(static_cast<uint32_t>(*parameter));
        else if (word == "cpg" && *parameter > 0)
            fontCodePages_[definingFont_] = static_cast<uint32_t>(*parameter);
    }

    void setFont(long font)
    {
        if (font == state_.font)
            return;
        flush();
        state_.font = font;
    }

    void symbol(char symbol, bool atGroupStart)
    {
        if (symbol == '*') {
            if (atGroupStart) {
                ignorable_ = true;
                groupStart_ = true;
            }
            return;
        }
        switch (symbol) {
        case '\\':
        case '{':
        case '}': byte(symbol); break;
        case '~': text(u"\u00A0"); break;
        case '_': text(u"\u2011"); break;
        case '\n': text(u"\r\n"); break;
        case '\t': text(u"\t"); break;
        default: break; // \- \| \: and broken escapes
        }
    }

    void byte(char c)
    {
        if (skipping_ > 0) {
            --skipping_;
            return;
        }
        if (visible())
            pending_ += c;
    }

    void unicodeUnit(char16_t unit)
    {
        if (!visible())
            return;
        flush();
        out_ += unit;
    }

    void text(std::u16string_view text)
    {
        if (!visible())
            return;
        flush();
        out_ += text;
    }

    void flush()
    {
        if (pending_.empty())
            return;
        out_ += decode_(pending_, codePage());
        pending_.clear();
    }

    Tokenizer tokens_;
    RtfBodyKind kind_;
    const CodePageDecoder& decode_;
    std::vector<GroupState> groups_;
    size_t overflow_ = 0; // groups opened beyond the depth limit
    GroupState state_;
    bool groupStart_ = false;
    bool ignorable_ = false; // the group began with \*
    int skipping_ = 0;       // fallback bytes of the last \uN still to skip
    std::optional<long> replacedTag_;
    uint32_t ansiCodePage_ = defaultAnsiCodePage;
    std::map<long, uint32_t> fontCodePages_;
    long definingFont_ = -1;
    std::string pending_; // 8-bit text not yet decoded, in codePage()
    std::u16string out_;
};

} // namespace

RtfBodyKind rtfBodyKindOf(std::string_view rtf)
{
    // The header is the run of control words and groups at the top level
    // before the document's first text.
    Tokenizer tokens(rtf);
    size_t depth = 0;
    for (Token token = tokens.next(); token.kind != Token::End; token = tokens.next()) {
        if (token.kind == Token::Open) {
            ++depth;
        } else if (token.kind == Token::Close) {
            if (depth <= 1)
                break;
            --depth;
        } else if (depth == 1 && token.kind == Token::Word) {
            if (token.word == "fromhtml" && token.parameter == 1)
                return RtfBodyKind::Html;
            if (token.word == "fromtext")
                return RtfBodyKind::Text;
        } else if (depth == 1 && token.kind != Token::Symbol && token.value != ' ' && token.value != '\t') {
            break;
        }
    }
    return RtfBodyKind::Rtf;
}

RtfBody readRtfBody(std::string_view rtf, const CodePageDecoder& decode)
{
    RtfBody body;
    body.kind = rtfBodyKindOf(rtf);
    body.text = BodyReader(rtf, body.kind, decode).read();
    return body;
}

std::u16string rtfPlainText(std::string_view rtf, const CodePageDecoder& decode)
{
    return BodyReader(rtf, RtfBodyKind::Rtf, decode).read();
}
