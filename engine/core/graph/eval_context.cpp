#include "graph/eval_context.h"

#include <utility>

#include "graph/field_value.h"
#include "graph/uniform_value.h"

namespace velmorin {

void NoteList::add(std::string text) {
    std::lock_guard lock(mutex_);
    notes_.push_back(std::move(text));
}

std::vector<std::string> NoteList::take() {
    std::lock_guard lock(mutex_);
    return std::exchange(notes_, {});
}

const SceneInput* EvalContext::sceneInput(std::string_view name) const {
    if (!sceneInputs) return nullptr;
    const auto found = sceneInputs->find(name);
    return found == sceneInputs->end() ? nullptr : &found->second;
}

std::string controlInputName(std::string_view control) {
    return "control:" + std::string(control);
}

std::optional<double> controlValue(const EvalContext& ctx, std::string_view control) {
    const SceneInput* input = ctx.sceneInput(controlInputName(control));
    if (!input) return std::nullopt;
    if (const auto uniform = input->value.get<UniformValue>()) {
        if (const double* number = std::get_if<double>(&uniform->value)) return *number;
        if (const std::int64_t* whole = std::get_if<std::int64_t>(&uniform->value))
            return static_cast<double>(*whole);
        if (const bool* on = std::get_if<bool>(&uniform->value)) return *on ? 1.0 : 0.0;
        return std::nullopt;
    }
    if (const auto field = input->value.get<FieldValue>()) return field->atStrand(0);
    return std::nullopt;
}

}  // namespace velmorin
