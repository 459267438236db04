#include "graph/eval_context.h"

#include <utility>

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

}  // namespace velmorin
