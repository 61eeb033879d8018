// `vxtool config`: list, read and change the entries of a configuration file.
#include "vxtool.h"

#include <vxtools3/config.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace vxtool {
namespace {

constexpr const char *kHelp =
    "usage: vxtool config list FILE\n"
    "       vxtool config get FILE NAME [--index N] [--type LETTERS]\n"
    "       vxtool config set FILE NAME [--index N | --add] FIELD...\n"
    "\n"
    "  list  prints every entry as 'NAME TEXT', grouped by value in order of appearance\n"
    "  get   prints the entries of NAME (only entry N with --index); with --type each\n"
    "        entry is parsed by the letters (f double, i integer, s word, t bare text)\n"
    "        and printed one field per line\n"
    "  set   replaces the entries of NAME with one entry made of the FIELDs (words with\n"
    "        blanks, quotes or backslashes are quoted); --index N replaces or appends entry\n"
    "        N only, --add appends an entry. The file is created when missing.\n"
    "\n"
    "Exit status: 0 done, 1 no such value or entry, or the file could not be written,\n"
    "2 bad command line, 3 the file is missing or unreadable.\n";

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
    if (S_ISDIR(info.st_mode))
        return FileError(file, "is a directory, not a configuration file", kBadInput);
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

int Set(const std::string &file, const char *name, int32_t index, bool add, const std::vector<const char *> &fields)
{
    Session session;
    if (int status = Load(file, true))
        return status;
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
    // Values read from a file carry no type; give each one so that every value is written.
    for (const char *value = ConfigNextValue(nullptr); value; value = ConfigNextValue(value))
        ConfigDefineValue(value, "t");
    if (!ConfigExport(file.c_str(), nullptr))
        return FileError(file, (std::string("cannot write the file (") + std::strerror(errno) + ")").c_str(), kFailed);
    return kOk;
}

}  // namespace

int ConfigMain(int argc, char **argv)
{
    std::vector<const char *> args;
    int32_t index = -1;
    bool add = false;
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
    return Set(file, args[2], index, add, std::vector<const char *>(args.begin() + 3, args.end()));
}

}  // namespace vxtool
