#include "common/command_flags.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <sstream>

namespace velmorin {

std::string_view flagTypeName(FlagType type) {
    switch (type) {
        case FlagType::None:
            return "none";
        case FlagType::Bool:
            return "bool";
        case FlagType::Int:
            return "int";
        case FlagType::Double:
            return "double";
        case FlagType::String:
            return "string";
    }
    return "none";
}

const FlagSpec* CommandSpec::findFlag(std::string_view name) const {
    for (const FlagSpec& flag : flags)
        if (flag.longName == name || (!flag.shortName.empty() && flag.shortName == name))
            return &flag;
    return nullptr;
}

void throwUsage(const std::string& what) {
    throw CommandError(CommandError::Kind::Usage, what);
}
void throwFailure(const std::string& what) {
    throw CommandError(CommandError::Kind::Failure, what);
}

namespace {

std::string flagName(const FlagSpec& flag) {
    return "-" + std::string(flag.longName);
}

std::optional<bool> readBool(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower == "true" || lower == "on" || lower == "yes" || lower == "1") return true;
    if (lower == "false" || lower == "off" || lower == "no" || lower == "0") return false;
    return std::nullopt;
}

std::optional<std::int64_t> readInt(std::string_view text) {
    std::int64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || at != end || text.empty()) return std::nullopt;
    return value;
}

std::optional<double> readDouble(std::string_view text) {
    // strtod rather than from_chars: it takes a leading "+" as people type it.
    const std::string copy(text);
    if (copy.empty() || std::isspace(static_cast<unsigned char>(copy[0]))) return std::nullopt;
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(copy.c_str(), &end);
    if (end != copy.c_str() + copy.size() || errno == ERANGE || !std::isfinite(value))
        return std::nullopt;
    return value;
}

FlagValue readValue(const FlagSpec& flag, const std::string& text) {
    const std::string quoted = "'" + text + "'";
    switch (flag.type) {
        case FlagType::Bool:
            if (auto value = readBool(text)) return *value;
            throwUsage(flagName(flag) + " takes true or false (on, off, yes, no, 1, 0), not " +
                       quoted);
        case FlagType::Int:
            if (auto value = readInt(text)) return *value;
            throwUsage(flagName(flag) + " takes a whole number, not " + quoted);
        case FlagType::Double:
            if (auto value = readDouble(text)) return *value;
            throwUsage(flagName(flag) + " takes a number, not " + quoted);
        case FlagType::String:
        case FlagType::None:
            break;
    }
    return text;
}

}  // namespace

ParsedFlags parseFlags(const CommandSpec& spec, std::span<const std::string> args) {
    ParsedFlags parsed;
    bool flagsEnded = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (!flagsEnded && arg == "--") {
            flagsEnded = true;
            continue;
        }
        if (flagsEnded || arg.size() < 2 || arg[0] != '-' || readDouble(arg)) {
            parsed.positional_.push_back(arg);
            continue;
        }
        std::string_view name(arg);
        name.remove_prefix(1);
        const bool twoDashes = name.starts_with('-');
        if (twoDashes) name.remove_prefix(1);
        std::optional<std::string> inlineValue;
        if (twoDashes) {
            if (const auto equals = name.find('='); equals != std::string_view::npos) {
                inlineValue = std::string(name.substr(equals + 1));
                name = name.substr(0, equals);
            }
        }
        const FlagSpec* flag = spec.findFlag(name);
        // Two dashes go with long names only, so "--f" is as unknown as any misspelling.
        if (!flag || (twoDashes && flag->longName != name))
            throwUsage("unknown flag '" + std::string(arg.substr(0, arg.find('='))) + "'");
        const std::string key(flag->longName);
        auto& values = parsed.values_[key];
        if (!values.empty() && !flag->multiUse) throwUsage(flagName(*flag) + " is given twice");
        if (values.empty()) parsed.order_.push_back(key);
        if (flag->type == FlagType::None) {
            if (inlineValue) throwUsage(flagName(*flag) + " takes no value");
            values.emplace_back(true);
            continue;
        }
        if (!inlineValue) {
            if (i + 1 >= args.size()) throwUsage(flagName(*flag) + " needs a value");
            inlineValue = args[++i];
        }
        values.push_back(readValue(*flag, *inlineValue));
    }
    return parsed;
}

const std::vector<FlagValue>* ParsedFlags::values(std::string_view longName) const {
    const auto found = values_.find(longName);
    if (found == values_.end() || found->second.empty()) return nullptr;
    return &found->second;
}

bool ParsedFlags::has(std::string_view longName) const {
    return values(longName) != nullptr;
}

std::optional<std::string> ParsedFlags::string(std::string_view longName) const {
    const auto* all = values(longName);
    if (!all) return std::nullopt;
    if (const auto* text = std::get_if<std::string>(&all->front())) return *text;
    return std::nullopt;
}

std::optional<double> ParsedFlags::number(std::string_view longName) const {
    const auto* all = values(longName);
    if (!all) return std::nullopt;
    if (const auto* value = std::get_if<double>(&all->front())) return *value;
    if (const auto* value = std::get_if<std::int64_t>(&all->front()))
        return static_cast<double>(*value);
    return std::nullopt;
}

std::optional<std::int64_t> ParsedFlags::integer(std::string_view longName) const {
    const auto* all = values(longName);
    if (!all) return std::nullopt;
    if (const auto* value = std::get_if<std::int64_t>(&all->front())) return *value;
    return std::nullopt;
}

std::optional<bool> ParsedFlags::boolean(std::string_view longName) const {
    const auto* all = values(longName);
    if (!all) return std::nullopt;
    if (const auto* value = std::get_if<bool>(&all->front())) return *value;
    return std::nullopt;
}

std::vector<std::string> ParsedFlags::strings(std::string_view longName) const {
    std::vector<std::string> out;
    if (const auto* all = values(longName))
        for (const FlagValue& value : *all)
            if (const auto* text = std::get_if<std::string>(&value)) out.push_back(*text);
    return out;
}

std::string commandHelp(const CommandSpec& spec, std::string_view program) {
    std::ostringstream out;
    out << "usage: " << program << ' ' << spec.cliName;
    if (!spec.flags.empty()) out << " [flags]";
    if (spec.groom == GroomArgument::Optional) out << " [GROOM]";
    if (spec.groom == GroomArgument::Required) out << " GROOM";
    out << "\n\n" << spec.summary << "\n";
    if (spec.flags.empty()) return out.str();
    out << "\nflags:\n";
    std::vector<std::string> names;
    std::size_t width = 0;
    for (const FlagSpec& flag : spec.flags) {
        std::string name =
            flag.shortName.empty() ? "    " : "-" + std::string(flag.shortName) + ", ";
        name += "-" + std::string(flag.longName);
        if (flag.type != FlagType::None) name += " " + std::string(flagTypeName(flag.type));
        width = std::max(width, name.size());
        names.push_back(std::move(name));
    }
    for (std::size_t i = 0; i < names.size(); ++i) {
        out << "  " << names[i] << std::string(width + 2 - names[i].size(), ' ')
            << spec.flags[i].meaning;
        if (spec.flags[i].multiUse) out << " (may be given more than once)";
        out << "\n";
    }
    return out.str();
}

}  // namespace velmorin
