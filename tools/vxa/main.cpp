// SPDX-License-Identifier: MIT
//
// vxa: converts settings trees between the byte form, the .vxa text form and JSON, prints
// them, and reads and changes single values. See "vxa --help".
#include "settingsfile.h"
#include "variant.h"
#include "vxtypes.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

const char* const usageText = "Usage:\n"
                              "  vxa convert [--from F] [--to F] [INPUT [OUTPUT]]   convert a settings tree\n"
                              "  vxa print   [--from F] [INPUT]                      show a tree, one setting per line\n"
                              "  vxa get     [--from F] [--typed] NAME [INPUT]       print one value (or a subtree as .vxa text)\n"
                              "  vxa set     [--from F] [--to F] NAME VALUE [INPUT [OUTPUT]]\n"
                              "                                                      store one value and write the tree\n"
                              "\n"
                              "Formats (F): bytes (.vxb, .bin), vxa (.vxa), json (.json). Without --from and --to the\n"
                              "format follows the file name's extension. Standard input is read where no INPUT (or \"-\")\n"
                              "is named, its format recognised from its first byte ('*' or '#': bytes, '{': json,\n"
                              "otherwise vxa); standard output is written where no OUTPUT (or \"-\") is named, as vxa\n"
                              "text for convert and in the input's format for set.\n"
                              "\n"
                              "NAME is a dotted path (a.b.rate). VALUE is the .vxa value text \"T:text\" with the kind's\n"
                              "letter T (B bool Y/N, I int32, J int64, F double, S string, U label list [\"a\",\"b\"],\n"
                              "L integer list [1,2], ...); a VALUE without such a prefix is stored as a string.\n"
                              "--typed prints a value with its kind letter, as .vxa text does.\n"
                              "\n"
                              "Exit codes: 0 done, 1 bad input or no such setting, 2 bad command line.\n";

enum class Format { Unknown, Bytes, Vxa, Json };

/** A failure that ends the program with one line on standard error. */
struct Failure {
    std::string message;
    int exitCode;
};

[[noreturn]] void usageError(const std::string& message)
{
    throw Failure {message + " (see vxa --help)", 2};
}

[[noreturn]] void inputError(const std::string& message)
{
    throw Failure {message, 1};
}

Format formatFromName(const std::string& name)
{
    if (name == "bytes" || name == "vxb" || name == "bin")
        return Format::Bytes;
    if (name == "vxa")
        return Format::Vxa;
    if (name == "json")
        return Format::Json;
    usageError("unknown format \"" + name + "\"; use bytes, vxa or json");
}

Format formatFromExtension(const std::string& path)
{
    const size_t dot = path.find_last_of('.');
    const size_t slash = path.find_last_of('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
        return Format::Unknown;
    std::string extension = path.substr(dot + 1);
    for (char& c : extension)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (extension == "vxb" || extension == "bin")
        return Format::Bytes;
    if (extension == "vxa")
        return Format::Vxa;
    if (extension == "json")
        return Format::Json;
    return Format::Unknown;
}

Format sniff(const std::string& data)
{
    if (!data.empty() && (data[0] == '*' || data[0] == '#'))
        return Format::Bytes;
    for (const char c : data) {
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n')
            continue;
        return c == '{' ? Format::Json : Format::Vxa;
    }
    return Format::Vxa;
}

bool isStandardStream(const std::string& path)
{
    return path.empty() || path == "-";
}

std::string displayName(const std::string& path)
{
    return isStandardStream(path) ? std::string("standard input") : path;
}

std::string readAll(const std::string& path)
{
    if (isStandardStream(path)) {
        std::string data((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
        if (std::cin.bad())
            inputError("cannot read standard input");
        return data;
    }
    std::ifstream file(path, std::ios::binary);
    if (!file)
        inputError("cannot open " + path + ": " + std::strerror(errno));
    std::string data((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (file.bad())
        inputError("cannot read " + path);
    return data;
}

void writeAll(const std::string& path, const std::string& data)
{
    if (isStandardStream(path)) {
        std::cout.write(data.data(), static_cast<std::streamsize>(data.size()));
        std::cout.flush();
        if (!std::cout)
            inputError("cannot write standard output");
        return;
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!file)
        inputError("cannot create " + path + ": " + std::strerror(errno));
    file.write(data.data(), static_cast<std::streamsize>(data.size()));
    file.close();
    if (!file)
        inputError("cannot write " + path);
}

/** A dotted name whose parts are all non-empty. */
bool isValidName(const std::string& name)
{
    if (name.empty() || name.front() == '.' || name.back() == '.' || name.find("..") != std::string::npos)
        return false;
    for (const char c : name) {
        if (c == '\0' || c == '\n' || c == '\r' || c == '=')
            return false;
    }
    return true;
}

std::string quoted(const std::string& text)
{
    std::string shown = text.size() > 60 ? text.substr(0, 60) + "..." : text;
    for (char& c : shown) {
        if (static_cast<unsigned char>(c) < 0x20)
            c = '?';
    }
    return "\"" + shown + "\"";
}

/**
 * Reads a value text "T:contents" exactly as a .vxa line holds it; false when the kind is
 * unknown or the contents are not read completely.
 */
bool readTypedValue(const std::string& text, veltrax::Variant& value)
{
    if (text.size() < 2 || text[1] != ':' || !veltrax::Variant::isKnownType(static_cast<unsigned char>(text[0])))
        return false;
    const int consumed = value.readFromString(text.c_str());
    return consumed == static_cast<int>(text.size()) || value.isString();
}

/**
 * The library's text reader skips lines it cannot use; the tool is stricter, so that a
 * mistyped line is reported rather than silently dropped.
 */
void checkVxaText(const std::string& text, const std::string& source)
{
    if (text.find('\0') != std::string::npos)
        inputError(source + ": holds binary data, not .vxa text (use --from bytes for the byte form)");
    std::istringstream lines(text);
    std::string line;
    int number = 0;
    while (std::getline(lines, line)) {
        ++number;
        while (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty() || line[0] == ';')
            continue;
        const std::string where = source + ":" + std::to_string(number) + ": ";
        const size_t equals = line.find('=');
        if (equals == std::string::npos)
            inputError(where + "expected name=T:value, found " + quoted(line));
        const std::string name = line.substr(0, equals);
        if (!isValidName(name))
            inputError(where + "bad setting name " + quoted(name));
        const size_t valueStart = line.compare(equals, 2, "==") == 0 ? equals + 2 : equals + 1;
        veltrax::Variant value;
        if (!readTypedValue(line.substr(valueStart), value))
            inputError(where + "cannot read the value " + quoted(line.substr(valueStart)) + " (expected T:value with a known kind letter)");
    }
}

/** Reads the tree in @p path; @p format Unknown: from the extension, else from the content. Reports the format used in @p used. */
veltrax::SettingsFile readTree(const std::string& path, Format format, Format* used = nullptr)
{
    const std::string data = readAll(path);
    const std::string source = displayName(path);
    if (format == Format::Unknown)
        format = isStandardStream(path) ? sniff(data) : formatFromExtension(path);
    if (format == Format::Unknown)
        format = sniff(data);
    if (used)
        *used = format;

    veltrax::SettingsFile tree;
    switch (format) {
    case Format::Bytes: {
        if (data.size() > static_cast<size_t>(INT32_MAX))
            inputError(source + ": too large for the byte form");
        const VxByteArray bytes = VxByteArray::view(data.data(), data.size());
        int consumed = 0;
        try {
            consumed = tree.deserialize(bytes, 0);
        } catch (const std::out_of_range&) {
            inputError(source + ": not a settings tree in byte form: the data end inside a setting (truncated?)");
        } catch (const VxException& e) {
            inputError(source + ": not a settings tree in byte form: " + e.text().toStdString());
        }
        if (consumed < 0 || static_cast<size_t>(consumed) != data.size()) {
            const size_t left = data.size() - static_cast<size_t>(consumed);
            inputError(source + ": not a settings tree in byte form: the data do not end with the last setting (" + std::to_string(left)
                + (left == 1 ? " byte" : " bytes") + " left over; truncated or followed by other data)");
        }
        break;
    }
    case Format::Vxa:
        checkVxaText(data, source);
        tree.readVxaString(data);
        break;
    case Format::Json:
        if (data.find('\0') != std::string::npos || !tree.readJsonString(data))
            inputError(source + ": not JSON text holding one object");
        break;
    case Format::Unknown:
        break;
    }
    return tree;
}

std::string render(const veltrax::SettingsFile& tree, Format format)
{
    std::string out;
    switch (format) {
    case Format::Bytes: {
        VxByteArray bytes;
        tree.serialize(bytes);
        out.assign(bytes.data(), bytes.size());
        break;
    }
    case Format::Json:
        tree.writeJsonString(out);
        out += '\n';
        break;
    case Format::Vxa:
    case Format::Unknown:
        tree.writeVxaString(std::string(), out, "vxa");
        break;
    }
    return out;
}

void printTree(const veltrax::SettingsFile& node, int depth, std::string& out)
{
    const std::string indent(static_cast<size_t>(depth) * 2, ' ');
    std::vector<std::string> labels;
    for (const auto& setting : node.settings())
        labels.push_back(setting.first);
    std::sort(labels.begin(), labels.end(), veltrax::CaseInsensitiveLess());
    for (const std::string& label : labels) {
        const veltrax::Variant& value = node.settings().at(label);
        std::string contents;
        value.writeContentsToString(contents);
        out += indent + label + " = " + contents + "  (" + (value.empty() ? std::string("empty") : value.typeName()) + ")\n";
    }
    labels.clear();
    for (const auto& subTree : node.subTreeMap())
        labels.push_back(subTree.first);
    std::sort(labels.begin(), labels.end(), veltrax::CaseInsensitiveLess());
    for (const std::string& label : labels) {
        out += indent + label + "\n";
        printTree(*node.subTreeMap().at(label), depth + 1, out);
    }
}

struct CommandLine {
    std::string command;
    std::vector<std::string> positional;
    Format from = Format::Unknown;
    Format to = Format::Unknown;
    bool typed = false;
};

CommandLine parse(int argc, char** argv)
{
    CommandLine line;
    bool optionsEnded = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (!optionsEnded && argument == "--") {
            optionsEnded = true;
        } else if (!optionsEnded && (argument == "--from" || argument == "--to")) {
            if (i + 1 >= argc)
                usageError(argument + " needs a format");
            (argument == "--from" ? line.from : line.to) = formatFromName(argv[++i]);
        } else if (!optionsEnded && argument == "--typed") {
            line.typed = true;
        } else if (!optionsEnded && (argument == "--help" || argument == "-h")) {
            line.command = "help";
        } else if (!optionsEnded && argument.size() > 1 && argument[0] == '-' && argument != "-") {
            usageError("unknown option " + argument);
        } else if (line.command.empty()) {
            line.command = argument;
        } else {
            line.positional.push_back(argument);
        }
    }
    return line;
}

std::string positional(const CommandLine& line, size_t index)
{
    return index < line.positional.size() ? line.positional[index] : std::string();
}

void requireArguments(const CommandLine& line, size_t minimum, size_t maximum)
{
    if (line.positional.size() < minimum)
        usageError("vxa " + line.command + " needs more arguments");
    if (line.positional.size() > maximum)
        usageError("vxa " + line.command + ": unexpected argument " + quoted(line.positional[maximum]));
}

Format outputFormat(const CommandLine& line, const std::string& output, Format fallback)
{
    if (line.to != Format::Unknown)
        return line.to;
    if (!isStandardStream(output)) {
        const Format format = formatFromExtension(output);
        if (format == Format::Unknown)
            usageError("cannot tell the format of " + output + " from its extension; add --to");
        return format;
    }
    return fallback;
}

int run(const CommandLine& line)
{
    if (line.command.empty())
        usageError("no command given");
    if (line.command == "help") {
        std::cout << usageText;
        return 0;
    }
    if (line.command == "convert") {
        requireArguments(line, 0, 2);
        const std::string input = positional(line, 0);
        const std::string output = positional(line, 1);
        const veltrax::SettingsFile tree = readTree(input, line.from);
        writeAll(output, render(tree, outputFormat(line, output, Format::Vxa)));
        return 0;
    }
    if (line.command == "print") {
        requireArguments(line, 0, 1);
        const std::string input = positional(line, 0);
        const veltrax::SettingsFile tree = readTree(input, line.from);
        std::string out;
        printTree(tree, 0, out);
        writeAll(std::string(), out);
        return 0;
    }
    if (line.command == "get") {
        requireArguments(line, 1, 2);
        const std::string name = positional(line, 0);
        const std::string input = positional(line, 1);
        if (!isValidName(name))
            usageError("bad setting name " + quoted(name));
        const veltrax::SettingsFile tree = readTree(input, line.from);
        if (const veltrax::Variant* value = tree.findValue(name)) {
            std::string out;
            if (line.typed)
                value->writeToString(out);
            else
                value->writeContentsToString(out);
            writeAll(std::string(), out + "\n");
            return 0;
        }
        if (tree.hasSubTree(name, true)) {
            std::string out;
            tree.subTree(name).writeVxaString(std::string(), out, "-");
            writeAll(std::string(), out);
            return 0;
        }
        inputError("no setting " + name + " in " + displayName(input));
    }
    if (line.command == "set") {
        requireArguments(line, 2, 4);
        const std::string name = positional(line, 0);
        const std::string valueText = positional(line, 1);
        const std::string input = positional(line, 2);
        const std::string output = positional(line, 3);
        if (!isValidName(name))
            usageError("bad setting name " + quoted(name));
        veltrax::Variant value;
        const bool typed = valueText.size() >= 2 && valueText[1] == ':' && veltrax::Variant::isKnownType(static_cast<unsigned char>(valueText[0]));
        if (typed) {
            if (!readTypedValue(valueText, value))
                usageError("cannot read the value " + quoted(valueText));
        } else {
            value = veltrax::Variant(valueText);
        }
        Format inputFormat = Format::Unknown;
        veltrax::SettingsFile tree = readTree(input, line.from, &inputFormat);
        tree.setSetting(name, value);
        writeAll(output, render(tree, outputFormat(line, output, inputFormat)));
        return 0;
    }
    usageError("unknown command " + quoted(line.command));
}

} // namespace

int main(int argc, char** argv)
{
    std::ios::sync_with_stdio(false);
    try {
        return run(parse(argc, argv));
    } catch (const Failure& failure) {
        std::cerr << "vxa: " << failure.message << std::endl;
        return failure.exitCode;
    } catch (const VxException& e) {
        std::cerr << "vxa: " << e.text().toStdString() << std::endl;
    } catch (const std::bad_alloc&) {
        std::cerr << "vxa: out of memory" << std::endl;
    } catch (const std::exception& e) {
        std::cerr << "vxa: " << e.what() << std::endl;
    } catch (...) {
        std::cerr << "vxa: unexpected failure" << std::endl;
    }
    return 1;
}
