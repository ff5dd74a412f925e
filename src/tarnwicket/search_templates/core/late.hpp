// Late binding: a module-level name that the code calls or reads is looked up
// in the module's namespace at each use, as a Python global is, so a host that
// replaces it is obeyed at the next use. While the name still holds the
// module's own object, the C++ function runs directly.
//
// The one pattern, for a name registered with def_function:
//
//     static const LateFn k_weighted_choice("_weighted_choice");
//     return k_weighted_choice.run<weighted_choice>(items, cum);
//
// The module's own objects are held in module state (core/state.hpp), so an
// identity test can never be fooled by a new object at a freed address.
#pragma once

#include "core/state.hpp"

#include <type_traits>

namespace tw {

class LateFn {
public:
    explicit LateFn(const char* name) : name_(PyUnicode_InternFromString(name)) {}

    handle name() const { return handle(name_); }
    // What the namespace holds now; NameError when the name was deleted.
    object current() const { return global(handle(name_)); }
    // True when `obj` is the module's own object behind this name.
    bool own(handle obj) const;
    // A null object while the name holds the module's own object, else what it holds.
    object replaced() const {
        object f = current();
        if (own(f)) return object();
        return f;
    }
    // The module's own object behind this name (borrowed), null when none was kept.
    PyObject* original() const;
    // Calls the name with `args`: F itself while the name holds the module's own
    // function, else whatever the namespace holds, through Python.
    //     object token = k_get_submission_token.run<get_submission_token>();
    template <auto F, class... A>
    object run(A... args) const {
        if (object f = replaced()) return tw::call(f, {handle(args)...});
        if constexpr (std::is_void_v<decltype(F(args...))>) {
            F(args...);
            return none();
        } else if constexpr (std::is_same_v<decltype(F(args...)), bool>) {
            return bool_of(F(args...));
        } else {
            return F(args...);
        }
    }

private:
    int slot() const;
    PyObject* name_;          // interned, immortal for our purposes
    mutable int slot_ = -1;   // index into module_state().originals, found at first use
    mutable std::size_t scanned_ = 0;  // entries of originals already compared
};

// An attribute of a host module, bound late in the same way: `random.randint`
// is read from the `random` module at each use, and the C++ fast path runs only
// while it is still the function that module had when ours was imported.
class LateAttr {
public:
    LateAttr(const char* module, const char* attr);
    // Keeps the module and its attribute as they are now; called at import.
    void capture() const;
    // The host module: the one kept at import, or, once the exit hook has let
    // the kept objects go, the one the host has now (threads outliving their
    // join still run until the host finalises).
    object module() const;
    object current() const { return get_attr(module(), handle(attr_)); }
    // The attribute as the module had it at import (borrowed); null once the
    // exit hook has run, when replaced() is never empty.
    handle original() const { return handle(original_.original()); }
    bool own(handle obj) const { return original_.own(obj); }
    object replaced() const {
        object f = current();
        if (own(f)) return object();
        return f;
    }

private:
    LateFn module_;     // "<module>" -> the module object
    LateFn original_;   // "<module>.<attr>" -> its attribute at import
    PyObject* attr_;
};

}  // namespace tw
