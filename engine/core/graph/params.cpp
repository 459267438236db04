#include "graph/params.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <type_traits>

#include "base/hash.h"
#include "graph/errors.h"
#include "graph/field_value.h"

namespace velmorin {
namespace {

constexpr double kTwoTo63 = 9223372036854775808.0;

// The number of a value: a bool is 0 or 1, an int the int as f64, a float itself.
std::optional<double> numberOf(const ParamValue& value) {
    if (const bool* b = std::get_if<bool>(&value)) return *b ? 1.0 : 0.0;
    if (const std::int64_t* i = std::get_if<std::int64_t>(&value)) return static_cast<double>(*i);
    if (const double* d = std::get_if<double>(&value)) return *d;
    return std::nullopt;
}

// A whole number is written out in full (an artist reads 9223372036854775808, not 9.2e+18);
// anything else in its shortest exact form.
std::string formatNumber(double value) {
    char text[64];
    const bool whole =
        std::isfinite(value) && std::fabs(value) < 1e21 && value == std::trunc(value);
    const auto result =
        whole ? std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, 0)
              : std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

// What a value offers, in the words of the value kinds.
std::string_view givenKindName(const ParamValue& value) {
    switch (paramKind(value)) {
        case ParamKind::Bool:
            return valueKindName(ValueKind::Bool);
        case ParamKind::Int:
            return valueKindName(ValueKind::Integer);
        case ParamKind::Float:
            return valueKindName(ValueKind::Number);
        case ParamKind::String:
            return valueKindName(ValueKind::Text);
        case ParamKind::Vec3:
            return valueKindName(ValueKind::Vec3);
        case ParamKind::Ramp:
            return paramKindName(ParamKind::Ramp);
        case ParamKind::Map:
            return paramKindName(ParamKind::Map);
    }
    return "unknown";
}

// What a param takes, in the same words.
std::string_view takenKindName(const ParamSpec& spec) {
    const ParamKind kind = spec.kind();
    if (kind == ParamKind::Ramp || kind == ParamKind::Map) return paramKindName(kind);
    return valueKindName(valueKindOf(spec));
}

// A map reference stands in for the value of any param that can be fed a field.
bool takesMap(const ParamSpec& spec) {
    return spec.kind() == ParamKind::Map || spec.mappable() || spec.colorField;
}

std::string joinChoices(const std::vector<std::string>& choices) {
    std::string list;
    for (const std::string& choice : choices) {
        if (!list.empty()) list += ", ";
        list += choice;
    }
    return list;
}

// ceil or floor of a limit, saturated to the range of i64.
std::int64_t saturatingInt(double value) {
    if (value >= kTwoTo63) return std::numeric_limits<std::int64_t>::max();
    if (value < -kTwoTo63) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(value);
}

template <class T>
const T* findAs(const std::map<std::string, ParamValue, std::less<>>& map, std::string_view name) {
    const auto found = map.find(name);
    return found == map.end() ? nullptr : std::get_if<T>(&found->second);
}

// The value of one kind that a getter reads: what the user set, else the default.
template <class T>
const T* setOrDefault(const ParamSet& params, std::string_view name) {
    if (const T* v = findAs<T>(params.values, name)) return v;
    return params.defaults ? findAs<T>(*params.defaults, name) : nullptr;
}

}  // namespace

std::string_view paramKindName(ParamKind kind) {
    switch (kind) {
        case ParamKind::Bool:
            return "bool";
        case ParamKind::Int:
            return "int";
        case ParamKind::Float:
            return "float";
        case ParamKind::String:
            return "string";
        case ParamKind::Vec3:
            return "vec3";
        case ParamKind::Ramp:
            return "ramp";
        case ParamKind::Map:
            return "map";
    }
    return "unknown";
}

ValueKind valueKindOf(const ParamSpec& spec) {
    switch (spec.kind()) {
        case ParamKind::Bool:
            return ValueKind::Bool;
        case ParamKind::Int:
            return ValueKind::Integer;
        case ParamKind::Float:
            return ValueKind::Number;
        case ParamKind::String:
            return spec.choices.empty() ? ValueKind::Text : ValueKind::Choice;
        case ParamKind::Vec3:
            return ValueKind::Vec3;
        case ParamKind::Ramp:
        case ParamKind::Map:
            return ValueKind::Any;
    }
    return ValueKind::Any;
}

ParamValue coerceParam(const ParamValue& value, const ParamSpec& spec, std::string_view context) {
    const ParamKind given = paramKind(value);
    const std::optional<double> number = numberOf(value);
    if (given == ParamKind::Map && takesMap(spec)) return value;

    switch (spec.kind()) {
        case ParamKind::Float:
            if (number) return *number;
            break;
        case ParamKind::Int:
            if (given == ParamKind::Int) return value;
            if (number) {
                // -2^63 is an i64, 2^63 is not; NaN fails both tests.
                if (!(*number >= -kTwoTo63 && *number < kTwoTo63)) {
                    throw GraphError(std::string(context) + ": " + formatNumber(*number) +
                                     " is out of range for an integer");
                }
                return static_cast<std::int64_t>(std::llround(*number));
            }
            break;
        case ParamKind::Bool:
            if (number) return *number != 0.0;
            break;
        case ParamKind::String:
            if (const std::string* text = std::get_if<std::string>(&value)) {
                if (!spec.choices.empty() && std::find(spec.choices.begin(), spec.choices.end(),
                                                       *text) == spec.choices.end()) {
                    throw GraphError(std::string(context) + ": '" + *text +
                                     "' is not one of its choices (" + joinChoices(spec.choices) +
                                     ")");
                }
                return value;
            }
            break;
        case ParamKind::Vec3:
        case ParamKind::Ramp:
        case ParamKind::Map:
            if (given == spec.kind()) return value;
            break;
    }
    throw GraphError("param '" + spec.name + "' takes " + std::string(takenKindName(spec)) +
                     " and cannot take " + std::string(givenKindName(value)));
}

bool paramInputPort(const ParamSpec& spec, PortSpec& out) {
    const ParamKind kind = spec.kind();
    PortSpec port;
    port.name = spec.name;
    port.optional = true;
    port.valueKind = ValueKind::Any;
    switch (spec.inputRule) {
        case InputRule::Never:
            return false;
        case InputRule::AlwaysValue:
            if (kind == ParamKind::Ramp || kind == ParamKind::Map) return false;
            port.type = PortType::Value;
            port.valueKind = valueKindOf(spec);
            break;
        case InputRule::Derive:
            if (kind == ParamKind::Ramp) {
                port.type = PortType::Curve;
            } else if (spec.mappable() || spec.colorField || kind == ParamKind::Map) {
                port.type = PortType::Field;
            } else {
                port.type = PortType::Value;
                port.valueKind = valueKindOf(spec);
            }
            break;
    }
    out = std::move(port);
    return true;
}

std::optional<int> paramDecimals(const ParamSpec& spec) {
    const ParamKind kind = spec.kind();
    if (kind != ParamKind::Float && kind != ParamKind::Int && kind != ParamKind::Vec3) {
        return std::nullopt;
    }
    if (spec.decimals) return spec.decimals;
    if (kind == ParamKind::Int || spec.unit == "pixels") return 0;
    if (spec.unit == "angle") return 1;
    if (spec.unit == "fraction" || spec.unit == "color") return 3;
    if (spec.unit == "turns" || spec.unit == "seconds") return 2;

    double magnitude = 0.0;
    if (spec.min && spec.max) {
        magnitude = *spec.max - *spec.min;
    } else if (const double* value = std::get_if<double>(&spec.defaultValue)) {
        magnitude = *value;
    } else {
        return 3;
    }
    if (magnitude >= 100) return 1;
    if (magnitude >= 10) return 2;
    if (magnitude >= 0.1 || magnitude <= 0) return 3;
    return 4;
}

std::uint64_t hashParamValue(std::uint64_t h, const ParamValue& value) {
    h = hashCombine(h, value.index());
    const auto hashVec = [](std::uint64_t seed, Vec3f v) {
        return hashCombine(hashCombine(hashCombine(seed, floatBits(v.x)), floatBits(v.y)),
                           floatBits(v.z));
    };
    const auto hashOptional = [](std::uint64_t seed, const std::optional<double>& v) {
        return v ? hashCombine(hashCombine(seed, 1), doubleBits(*v)) : hashCombine(seed, 0);
    };
    return std::visit(
        [&](const auto& v) -> std::uint64_t {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, bool>) {
                return hashCombine(h, v ? 1 : 0);
            } else if constexpr (std::is_same_v<T, std::int64_t>) {
                return hashCombine(h, static_cast<std::uint64_t>(v));
            } else if constexpr (std::is_same_v<T, double>) {
                return hashCombine(h, doubleBits(v));
            } else if constexpr (std::is_same_v<T, std::string>) {
                return hashText(h, v);
            } else if constexpr (std::is_same_v<T, Vec3f>) {
                return hashVec(h, v);
            } else if constexpr (std::is_same_v<T, Ramp>) {
                std::uint64_t r = hashCombine(hashCombine(h, v.linear ? 1 : 0), v.keys.size());
                for (const RampKey& key : v.keys) {
                    r = hashVec(r, {key.position, key.value, key.slope});
                }
                return r;
            } else {
                std::uint64_t r = hashCombine(h, static_cast<std::uint64_t>(v.source));
                r = hashText(r, v.text);
                r = hashText(r, v.component);
                r = hashCombine(
                    r, static_cast<std::uint64_t>(static_cast<std::int64_t>(v.componentIndex)));
                return hashOptional(hashOptional(r, v.min), v.max);
            }
        },
        value);
}

// ---- ParamReadLog ----

void ParamReadLog::note(std::string_view name) {
    std::lock_guard lock(mutex_);
    // A node reads a handful of params, most of them many times: a scan beats a set here.
    for (const std::string& known : names_) {
        if (known == name) return;
    }
    names_.emplace_back(name);
}

std::vector<std::string> ParamReadLog::names() const {
    std::lock_guard lock(mutex_);
    return names_;
}

// ---- ParamSet ----

void ParamSet::declare(const std::vector<ParamSpec>& specs) {
    auto specTable = std::make_shared<SpecTable>();
    auto limitTable = std::make_shared<std::map<std::string, Limits, std::less<>>>();
    auto defaultTable = std::make_shared<std::map<std::string, ParamValue, std::less<>>>();
    for (const ParamSpec& spec : specs) {
        // The first declaration of a name stands, as in the schema.
        if (!specTable->emplace(spec.name, spec).second) continue;
        defaultTable->emplace(spec.name, spec.defaultValue);
        if (spec.min || spec.max) {
            Limits limits;
            limits.hasMin = spec.min.has_value();
            limits.min = spec.min.value_or(0.0);
            limits.hasMax = spec.max.has_value();
            limits.max = spec.max.value_or(0.0);
            limitTable->emplace(spec.name, limits);
        }
    }
    specs_ = std::move(specTable);
    limits = std::move(limitTable);
    defaults = std::move(defaultTable);
}

void ParamSet::noteRead(std::string_view name) const {
    if (readLog) readLog->note(name);
}

const ParamValue* ParamSet::lookup(std::string_view name) const {
    if (const auto found = values.find(name); found != values.end()) return &found->second;
    if (defaults) {
        if (const auto found = defaults->find(name); found != defaults->end()) {
            return &found->second;
        }
    }
    return nullptr;
}

bool ParamSet::getBool(std::string_view name, bool fallback) const {
    noteRead(name);
    if (const bool* v = setOrDefault<bool>(*this, name)) return *v;
    return fallback;
}

std::int64_t ParamSet::getInt(std::string_view name, std::int64_t fallback) const {
    noteRead(name);
    const std::int64_t* found = setOrDefault<std::int64_t>(*this, name);
    const std::int64_t result = found ? *found : fallback;
    if (limits) {
        if (const auto found = limits->find(name); found != limits->end()) {
            const Limits& l = found->second;
            if (l.hasMin && static_cast<double>(result) < l.min)
                return saturatingInt(std::ceil(l.min));
            if (l.hasMax && static_cast<double>(result) > l.max) {
                return saturatingInt(std::floor(l.max));
            }
        }
    }
    return result;
}

double ParamSet::getFloat(std::string_view name, double fallback) const {
    noteRead(name);
    const auto numberIn =
        [name](const std::map<std::string, ParamValue, std::less<>>& map) -> std::optional<double> {
        if (const double* d = findAs<double>(map, name)) return *d;
        if (const std::int64_t* i = findAs<std::int64_t>(map, name)) return static_cast<double>(*i);
        return std::nullopt;
    };
    std::optional<double> found = numberIn(values);
    if (!found && defaults) found = numberIn(*defaults);
    double result = found.value_or(fallback);
    if (limits) {
        if (const auto entry = limits->find(name); entry != limits->end()) {
            const Limits& l = entry->second;
            if (l.hasMin && result < l.min) result = l.min;
            if (l.hasMax && result > l.max) result = l.max;
        }
    }
    return result;
}

std::string ParamSet::getString(std::string_view name, const std::string& fallback) const {
    noteRead(name);
    if (const std::string* v = setOrDefault<std::string>(*this, name)) return *v;
    return fallback;
}

Vec3f ParamSet::getVec3(std::string_view name, Vec3f fallback) const {
    noteRead(name);
    if (const Vec3f* v = setOrDefault<Vec3f>(*this, name)) return *v;
    return fallback;
}

Ramp ParamSet::getRamp(std::string_view name, const Ramp& fallback) const {
    noteRead(name);
    if (const Ramp* v = setOrDefault<Ramp>(*this, name)) return *v;
    return fallback;
}

std::shared_ptr<const FieldValue> ParamSet::constantField(std::string_view name) const {
    noteRead(name);
    // A vector is a colour field; everything else its plain number (a map reference, resolved
    // elsewhere, reads as its default here).
    const ParamValue* value = lookup(name);
    if (value && paramKind(*value) == ParamKind::Map && defaults) {
        const auto found = defaults->find(name);
        value = found == defaults->end() ? nullptr : &found->second;
    }
    if (value) {
        if (const Vec3f* v = std::get_if<Vec3f>(value)) {
            return std::make_shared<ConstantColorField>(*v);
        }
        if (const bool* b = std::get_if<bool>(value)) {
            return std::make_shared<ConstantFieldValue>(*b ? 1.0f : 0.0f);
        }
    }
    return std::make_shared<ConstantFieldValue>(static_cast<float>(getFloat(name, 0.0)));
}

void ParamSet::set(std::string_view name, const ParamValue& value) {
    const ParamSpec* declared = spec(name);
    if (!declared) throw GraphError("unknown parameter '" + std::string(name) + "'");
    // Coerce first: a value the param can't take leaves the old one standing.
    ParamValue coerced = coerceParam(value, *declared, "param '" + std::string(name) + "'");
    values.insert_or_assign(std::string(name), std::move(coerced));
}

bool ParamSet::has(std::string_view name) const {
    return spec(name) != nullptr || lookup(name) != nullptr;
}

const ParamValue& ParamSet::checked(std::string_view name) const {
    const ParamValue* value = lookup(name);
    if (!value) throw GraphError("unknown parameter '" + std::string(name) + "'");
    noteRead(name);
    return *value;
}

const ParamSpec* ParamSet::spec(std::string_view name) const {
    if (!specs_) return nullptr;
    const auto found = specs_->find(name);
    return found == specs_->end() ? nullptr : &found->second;
}

const ParamSet::SpecTable& ParamSet::specs() const {
    static const SpecTable kNone;
    return specs_ ? *specs_ : kNone;
}

std::uint64_t ParamSet::hash() const {
    std::uint64_t h = hashCombine(0, values.size());
    for (const auto& [name, value] : values)
        h = hashParamValue(hashText(h, name), value);
    return h;
}

}  // namespace velmorin
