// `vxtool config`: list, read and change the entries of a configuration file.
#include "vxtool.h"

#include <vxtools3/config.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace vxtool {
namespace {

constexpr const char *kHelp =
    "usage: vxtool config list FILE\n"
    "       vxtool config get FILE NAME [--index N] [--type LETTERS]\n"
    "       vxtool config set FILE NAME [--index N | --add] [--force] FIELD...\n"
    "\n"
    "  list  prints every entry as 'NAME TEXT', grouped by value in order of appearance\n"
    "  get   prints the entries of NAME (only entry N with --index); with --type each\n"
    "        entry is parsed by the letters (f double, i integer, s word, t bare text)\n"
    "        and printed one field per line\n"
    "  set   replaces the entries of NAME with one entry made of the FIELDs (words with\n"
    "        blanks, quotes or backslashes are quoted); --index N replaces or appends entry\n"
    "        N only, --add appends an entry. The file is created when missing.\n"
    "        The whole file is written back as the store holds it; when that would lose or\n"
    "        change a line (longer than 1023 characters, a NUL byte, a name without a value,\n"
    "        other bytes the store reads differently), set refuses and names the first such\n"
    "        line, unless --force. Blank lines, leading blanks, the white space between a\n"
    "        name and its text and a carriage return before the newline are not kept.\n"
    "\n"
    "Exit status: 0 done, 1 no such value or entry, or the file could not be written,\n"
    "2 bad command line, 3 the file is missing or unreadable, or set would lose some of it.\n";

int UsageError(const std::string &message) { return ReportUsageError("config", message); }

int FileError(const std::string &file, const char *what, int status)
{
    std::fprintf(stderr, "vxtool config: %s: %s\n", file.c_str(), what);
    return status;
}

bool ParseIndex(const std::string &text, int32_t &index)
{
    char *end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end || errno || value < 0 || value > INT32_MAX)
        return false;
    index = static_cast<int32_t>(value);
    return true;
}

bool ValidName(const char *name)
{
    if (!name[0])
        return false;
    for (const char *p = name; *p; ++p)
        if (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r' || *p == '\v' || *p == '\f')
            return false;
    return true;
}

// Opens the store on `file`; a missing file is an error unless `mayBeMissing`.
struct Session {
    VxConfigClient *client = ConfigAddClient(nullptr, 0);
    ~Session() { ConfigRemClient(client); }
};

int Load(const std::string &file, bool mayBeMissing)
{
    struct stat info;
    if (stat(file.c_str(), &info) != 0) {
        if (mayBeMissing && errno == ENOENT)
            return kOk;
        return FileError(file, "cannot open the file", kBadInput);
    }
    if (ReportIfDirectory("config", file))
        return kBadInput;
    if (!ConfigImport(file.c_str(), nullptr))
        return FileError(file, "cannot read the file", kBadInput);
    return kOk;
}

int List(const std::string &file)
{
    Session session;
    if (int status = Load(file, false))
        return status;
    for (const char *name = ConfigNextValue(nullptr); name; name = ConfigNextValue(name))
        for (int32_t i = 0; i < ConfigNum(name); ++i)
            std::printf("%s %s\n", name, ConfigRawGet(name, i));
    return kOk;
}

// Parses one entry field by field with the text-parsing helpers, as a typed value would.
bool PrintFields(const char *text, const std::string &letters)
{
    const char *p = text;
    for (size_t k = 0; k < letters.size(); ++k) {
        char word[CONFIG_TEXT_SIZE];
        double number = 0;
        int32_t integer = 0;
        bool ok = false;
        switch (letters[k]) {
        case 'f':
            ok = PullDouble(&p, &number);
            if (ok)
                std::printf("%.7g\n", number);
            break;
        case 'i':
            ok = PullInteger(&p, &integer);
            if (ok)
                std::printf("%d\n", integer);
            break;
        case 's':
            ok = PullQuoteWord(&p, word, sizeof word);
            if (ok)
                std::printf("%s\n", word);
            break;
        case 't':
            ok = PullNonWhite(&p, word, sizeof word);
            if (ok)
                std::printf("%s\n", word);
            break;
        default: return false;
        }
        if (!ok)
            return false;
    }
    return true;
}

int Get(const std::string &file, const char *name, int32_t index, const std::string &letters)
{
    for (char c : letters)
        if (!std::strchr("fist", c))
            return UsageError(std::string("unknown field letter '") + c + "' in --type (use f, i, s, t)");
    Session session;
    if (int status = Load(file, false))
        return status;
    const int32_t count = ConfigNum(name);
    if (count == 0)
        return FileError(file, (std::string("no value '") + name + "'").c_str(), kFailed);
    if (index >= count)
        return FileError(file, (std::string("value '") + name + "' has " + std::to_string(count) +
                                " entries, no entry " + std::to_string(index)).c_str(), kFailed);
    for (int32_t i = index < 0 ? 0 : index; i < (index < 0 ? count : index + 1); ++i) {
        const char *text = ConfigRawGet(name, i);
        if (letters.empty()) {
            std::printf("%s\n", text);
        } else if (!PrintFields(text, letters)) {
            return FileError(file, (std::string("entry ") + std::to_string(i) + " of '" + name +
                                    "' does not read as '" + letters + "': " + text).c_str(), kFailed);
        }
    }
    return kOk;
}

std::string JoinFields(const std::vector<const char *> &fields)
{
    std::string text;
    for (const char *field : fields) {
        const int length = QuoteWord(nullptr, 0, field);
        std::string quoted(static_cast<size_t>(length) + 1, '\0');
        QuoteWord(quoted.data(), length + 1, field);
        quoted.resize(static_cast<size_t>(length));
        text += (text.empty() ? "" : " ") + quoted;
    }
    return text;
}

bool IsWhite(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

// A line of a configuration file as the store writes it back ("NAME TEXT"), or "" for a line
// that holds no entry.
std::string AsWritten(std::string line)
{
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos)
        return "";
    size_t nameEnd = start;
    while (nameEnd < line.size() && !IsWhite(line[nameEnd]))
        ++nameEnd;
    size_t text = nameEnd;
    while (text < line.size() && IsWhite(line[text]))
        ++text;
    if (text == line.size())
        return nameEnd == start ? "" : line.substr(start, nameEnd - start);  // a name alone: lost
    return line.substr(start, nameEnd - start) + " " + line.substr(text);
}

bool AllWhite(const std::string &line)
{
    for (char c : line)
        if (!IsWhite(c))
            return false;
    return true;
}

std::string WhyLost(const std::string &line)
{
    if (line.find('\0') != std::string::npos)
        return "it holds a NUL byte";
    if (line.size() > CONFIG_TEXT_SIZE - 1)
        return "it is longer than " + std::to_string(CONFIG_TEXT_SIZE - 1) + " characters";
    if (AsWritten(line).find(' ') == std::string::npos)
        return "it holds a name without a value";
    return "the store reads it differently";
}

// Compares every line of `file` that holds anything with the lines the store writes for what
// it imported (exported to a scratch file); returns the number of the first line that would
// be lost or changed, with why, or 0 when the file would be written back whole.
int64_t FirstLostLine(const std::string &file, std::string &why)
{
    char scratch[] = "/tmp/vxtool-config-XXXXXX";
    const int fd = mkstemp(scratch);
    if (fd < 0 || close(fd) != 0 || !ConfigExport(scratch, nullptr)) {
        why = "cannot make a scratch copy to compare with";
        std::remove(scratch);
        return -1;
    }
    std::ifstream original(file, std::ios::binary), written(scratch, std::ios::binary);
    std::string line, kept;
    int64_t number = 0, lost = 0;
    while (!lost && std::getline(original, line)) {
        ++number;
        if (AllWhite(line))
            continue;
        if (!std::getline(written, kept) || kept != AsWritten(line)) {
            why = WhyLost(line);
            lost = number;
        }
    }
    std::remove(scratch);
    return lost;
}

int Set(const std::string &file, const char *name, int32_t index, bool add, bool force,
        const std::vector<const char *> &fields)
{
    Session session;
    if (int status = Load(file, true))
        return status;
    // Values read from a file carry no type; give each one so that every value is written.
    for (const char *value = ConfigNextValue(nullptr); value; value = ConfigNextValue(value))
        ConfigDefineValue(value, "t");
    struct stat info;
    std::string why;
    if (!force && stat(file.c_str(), &info) == 0)
        if (const int64_t line = FirstLostLine(file, why))
            return FileError(file, (line < 0 ? why : "line " + std::to_string(line) + " would be lost or changed by writing the file back (" +
                                                         why + "); nothing written (--force writes it all the same)").c_str(),
                             line < 0 ? kFailed : kBadInput);
    const std::string text = JoinFields(fields);
    const int32_t count = ConfigNum(name);
    bool stored;
    if (add || index >= 0) {
        stored = ConfigRawSet(name, add ? count : index, text.c_str());
    } else {
        stored = ConfigRawSet(name, 0, text.c_str());
        for (int32_t i = count - 1; stored && i > 0; --i)
            ConfigRawSet(name, i, nullptr);
    }
    if (!stored)
        return FileError(file, "out of memory", kFailed);
    ConfigDefineValue(name, "t");
    if (!ConfigExport(file.c_str(), nullptr))
        return FileError(file, (std::string("cannot write the file (") + std::strerror(errno) + ")").c_str(), kFailed);
    return kOk;
}

}  // namespace

int ConfigMain(int argc, char **argv)
{
    std::vector<const char *> args;
    int32_t index = -1;
    bool add = false, force = false;
    std::string letters;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kHelp, stdout);
            return kOk;
        }
        if (arg == "--index" || arg == "--type") {
            if (i + 1 >= argc)
                return UsageError(arg + " needs a value");
            const std::string value = argv[++i];
            if (arg == "--type")
                letters = value;
            else if (!ParseIndex(value, index))
                return UsageError("not an entry index: '" + value + "'");
        } else if (arg == "--add") {
            add = true;
        } else if (arg == "--force") {
            force = true;
        } else if (arg == "--") {
            for (++i; i < argc; ++i)
                args.push_back(argv[i]);
        } else if (arg.size() > 2 && arg.compare(0, 2, "--") == 0) {
            return UsageError("unknown option '" + arg + "'");
        } else {
            args.push_back(argv[i]);
        }
    }
    if (args.empty())
        return UsageError("wants a subcommand: list, get or set");
    const std::string sub = args[0];
    if (sub != "list" && sub != "get" && sub != "set")
        return UsageError("unknown subcommand '" + sub + "'");
    if (args.size() < 2)
        return UsageError(sub + " needs a FILE");
    const std::string file = args[1];
    if (sub == "list")
        return args.size() == 2 ? List(file) : UsageError("list takes only a FILE");
    if (args.size() < 3)
        return UsageError(sub + " needs a value NAME");
    if (!ValidName(args[2]))
        return UsageError(std::string("not a value name: '") + args[2] + "' (empty or holds white space)");
    if (sub == "get")
        return args.size() == 3 ? Get(file, args[2], index, letters) : UsageError("get takes FILE and NAME only");
    if (add && index >= 0)
        return UsageError("--add and --index exclude each other");
    if (args.size() < 4)
        return UsageError("set needs at least one FIELD");
    return Set(file, args[2], index, add, force, std::vector<const char *>(args.begin() + 3, args.end()));
}

}  // namespace vxtool
