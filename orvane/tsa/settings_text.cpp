// The settings library ends the process itself when a file it reads is a folder, needs time that
// grows with the square of a long word when it reads a stream, and has no hook for includes. So
// files are read here, by its rules: what a directive is, where strings and comments end, what a
// path is.

#include "tsa/settings_text.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

namespace {

constexpr size_t MAX_TEXT_BYTES = 16 << 20;
constexpr size_t MAX_INCLUDES = 1000;
constexpr uint64_t MAX_COMPARED_BYTES = 1'000'000'000;
constexpr int MAX_INCLUDE_DEPTH = 10;
constexpr char NO_SETTING = '\x01'; // a syntax error wherever it stands outside strings

struct close_file {
    void operator()(FILE *fp) const { fclose(fp); }
};
typedef std::unique_ptr<FILE, close_file> file_ptr;

// A file being read.
struct source {
    FILE *fp;
    int depth = 0; // 0: not included
    int line = 1;
};

enum class inside { settings, line_comment, block_comment, string };

struct scan {
    settings_text *out;
    inside where = inside::settings; // goes on from the end of an included file
    bool gap = false;                // something was left out since the last byte
    size_t word = 0;                 // where the last word begins
    size_t includes = 0;
    uint64_t compared = 0;
    std::vector<uint64_t> names{0}; // settings of the open groups
};

int next(source *in)
{
    const int c = getc_unlocked(in->fp);
    if (c == '\n')
        ++in->line;
    return c;
}

int peek(source *in) { return ungetc(getc_unlocked(in->fp), in->fp); }

void begin_line(settings_text *out, int line)
{
    if (line == out->lines.back())
        return;
    out->text += '\n';
    out->lines.push_back(line);
}

// Ends the text with something the parser stops at, unless it does so before. Returns false.
bool fail(scan *s, int line, const char *fault)
{
    begin_line(s->out, line);
    s->out->text += NO_SETTING;
    s->out->fault = fault;
    return false;
}

// The parser need not see what stands before.
bool fail_limit(scan *s, int line)
{
    s->out->text.clear();
    s->out->lines = {line};
    return fail(s, line, strerror(EFBIG));
}

bool put(scan *s, const source &in, int c)
{
    std::string &text = s->out->text;
    if (text.size() >= MAX_TEXT_BYTES)
        return fail_limit(s, in.line);
    if (s->where == inside::string) {
        text += static_cast<char>(c);
        if (c == '\n')
            s->out->lines.push_back(in.line);
        return true;
    }
    if (s->gap || in.line != s->out->lines.back()) {
        text += ' ';
        begin_line(s->out, in.line);
        s->word = text.size();
        s->gap = false;
    }
    text += static_cast<char>(c);
    return true;
}

bool put_punctuation(scan *s, const source &in, int c)
{
    if (c == '{') {
        s->names.push_back(0);
    } else if (c == '}') {
        if (s->names.size() > 1)
            s->names.pop_back();
    } else if (c == '=' || c == ':') {
        // The parser compares a new name with each before it.
        s->compared += s->names.back()++ * (s->out->text.size() - s->word);
        if (s->compared > MAX_COMPARED_BYTES)
            return fail_limit(s, in.line);
    }
    const bool ok = put(s, in, c);
    s->word = s->out->text.size();
    return ok;
}

bool scan_source(scan *s, source *in, int line);

// Behind the opening quote of a directive.
bool include_file(scan *s, source *in)
{
    std::string path;
    for (int c = 0; (c = next(in)) != '"';) {
        if (c == EOF)
            return true; // nothing is included, and nothing follows
        if (path.size() >= PATH_MAX)
            return fail(s, in->line, "cannot open include file");
        if (c == '\\') {
            c = peek(in);
            if (c != '\\' && c != '"')
                continue;
            next(in);
        }
        path += static_cast<char>(c);
    }
    if (in->depth == MAX_INCLUDE_DEPTH)
        return fail(s, in->line, "include file nesting too deep");
    if (++s->includes > MAX_INCLUDES)
        return fail_limit(s, in->line);
    const file_ptr fp(fopen(path.c_str(), "r"));
    if (fp == nullptr)
        return fail(s, in->line, "cannot open include file");
    source included{.fp = fp.get(), .depth = in->depth + 1};
    s->gap = true;
    const bool ok = scan_source(s, &included, in->line);
    s->gap = true;
    return ok;
}

// Reads the rest of "@include", blanks and the opening quote, as far as they are there.
bool begins_include(source *in)
{
    for (const char c : std::string_view("include")) {
        if (peek(in) != c)
            return false;
        next(in);
    }
    bool blanks = false;
    for (; peek(in) == ' ' || peek(in) == '\t'; blanks = true)
        next(in);
    if (!blanks || peek(in) != '"')
        return false;
    next(in);
    return true;
}

bool scan_string(scan *s, source *in, int c)
{
    if (c == '\0') { // the parser forgets the rest of the piece
        for (int ahead = 0; (ahead = peek(in)) != '"' && ahead != '\\' && ahead != EOF;)
            next(in);
        return true;
    }
    bool ok = put(s, *in, c);
    const int ahead = c == '\\' ? peek(in) : EOF;
    if (ahead == '\\' || ahead == '"')
        ok = ok && put(s, *in, next(in));
    if (c == '"')
        s->where = inside::settings;
    return ok;
}

// `at_begin`: only blanks precede on the line.
bool scan_setting(scan *s, source *in, int c, bool at_begin)
{
    if (c == '#' || (c == '/' && peek(in) == '/')) {
        s->where = inside::line_comment;
        s->gap = true;
        return true;
    }
    if (c == '/' && peek(in) == '*') {
        next(in);
        s->where = inside::block_comment;
        s->gap = true;
        return true;
    }
    if (c == '@' && at_begin && begins_include(in))
        return include_file(s, in);
    if (c == '"') {
        const bool ok = put(s, *in, c);
        s->where = inside::string;
        return ok;
    }
    if (c == '@' || c == '\0')
        c = NO_SETTING;
    if (c > '\0' && strchr("{}()[]=:,;", c) != nullptr)
        return put_punctuation(s, *in, c);
    return put(s, *in, c);
}

// `line`: where a failure to read is reported.
bool scan_source(scan *s, source *in, int line)
{
    bool ok = true;
    bool at_begin = true;
    errno = 0;
    for (int c = 0; ok && (c = next(in)) != EOF;) {
        if (s->where == inside::string) {
            ok = scan_string(s, in, c);
        } else if (s->where == inside::block_comment) {
            if (c == '*' && peek(in) == '/') {
                next(in);
                s->where = inside::settings;
            }
        } else if (c == '\n') {
            s->where = inside::settings;
            s->gap = true;
        } else if (s->where == inside::settings) {
            if (strchr(" \t\r\f", c) == nullptr || c == '\0')
                ok = scan_setting(s, in, c, at_begin);
            else
                s->gap = true;
        }
        at_begin = c == '\n' || (at_begin && (c == ' ' || c == '\t'));
    }
    if (s->where == inside::line_comment)
        s->where = inside::settings;
    if (ok && ferror(in->fp) != 0)
        return fail(s, line, strerror(errno));
    return ok;
}

} // namespace

settings_text read_settings_text(FILE *fp)
{
    settings_text settings;
    scan s{.out = &settings};
    source in{.fp = fp};
    if (scan_source(&s, &in, 0))
        begin_line(&settings, in.line);
    return settings;
}

int line_of_file(const settings_text &settings, int line)
{
    const size_t index = static_cast<size_t>(std::max(line, 1)) - 1;
    return settings.lines[std::min(index, settings.lines.size() - 1)];
}
