// The random-weighted generator: screening, config resolution, analytics
// weighting, budgets and the draw. Logic works on host objects so that every
// exposed helper keeps the host's semantics; the hot path keeps C++ mirrors.
#pragma once

#include "core/module.hpp"

#include <cstdint>
#include <utility>
#include <vector>

namespace tw::gen {

// ---------------------------------------------------------------- limits

// The generator's module constants, read through the namespace when an
// operation starts (hot users take one snapshot per operation).
struct Limits {
    long long default_max_node_count;
    long long hard_max_node_count;
    long long default_buffer_minutes;
    long long max_recursive_depth;
    long long max_analytics_rows;
    long long max_names_per_row;
    long long max_unique_names;
    long long max_analytics_weight;
    double max_abs_yield_rate;
    static Limits read();
};

// Saturating int64 of an int object (other objects: TypeError, like an index).
long long clamp_ll(handle int_obj);

// ---------------------------------------------------------------- scalar coercers

// Small Python-faithful helpers shared by the generator's files.
inline bool cmp(handle a, handle b, int op) { return check_int(PyObject_RichCompareBool(a.ptr(), b.ptr(), op)) == 1; }
inline bool eq_str(handle a, const char* s) {
    if (PyUnicode_CheckExact(a.ptr())) return PyUnicode_CompareWithASCIIString(a.ptr(), s) == 0;
    object b = steal(PyUnicode_FromString(s));
    return cmp(a, b, Py_EQ);
}
inline object get(handle m, handle key, handle dflt = Py_None) { return dict_get(m, key, dflt); }
inline bool has_value(handle m, handle key) { return !is_none(get(m, key)); }
// A message composed by the host's own formatting (%R, %S, %U take objects), so
// that whatever a repr or str yields, lone surrogates included, passes unchanged
// and a repr is only taken for the message that shows it.
template <class... A>
object msg(const char* fmt, A... args) {
    return steal(PyUnicode_FromFormat(fmt, args...));
}
// The `name` of each spec, in order.
object spec_names(handle specs);

bool is_finite_number(handle value);
object rw_float(handle value, handle dflt);        // _random_weighted_float
bool rw_float_d(handle value, double& out);         // same, false where the default applies
object rw_int(handle value, handle dflt);          // _random_weighted_int
object rw_positive_int(handle value, handle dflt);  // _random_weighted_positive_int
double safe_yield_rate(handle value, double max_abs);
double safe_yield_rate_d(double rate, double max_abs);

object era_value(handle ctx, handle name, handle dflt);
object node_limit(handle ctx);
object buffer_duration_limit(handle ctx);
object window_limit(handle ctx, handle max_depth);

// ---------------------------------------------------------------- node budgets

object min_node_count(handle spec);
object rotations_within_node_budget(handle rotations, handle node_limit);
object worst_case_node_count(handle rotations, handle depth, handle node_limit);
object max_depth_within_node_budget(handle rotations, handle requested_depth, handle node_limit);

// ---------------------------------------------------------------- config parameters

object numeric_bounds(handle param);  // 5-tuple
object numeric_range_label(handle has_min, handle min_value, handle has_max, handle max_value);
object numeric_bounds_reason(handle param, handle value);
object config_value_reason(handle param_name, handle value, bool integer);
object window_bounded_param(handle param, handle window_limit);
object window_budget_reason(handle param_name, handle value, handle window_limit);
object numeric_default(handle param, bool integer);
object first_choice(handle param);
std::pair<object, object> config_child(handle function_name, handle param, handle window_limit);

// ---------------------------------------------------------------- rotation screening

object param_dict(handle raw_param, handle default_name);
std::pair<object, object> schema_params(handle schema, handle node_limit);
std::pair<object, object> declared_arity(handle fn);
object rotation_schema(handle fn, handle window_limit, handle node_limit);
object unsafe_function_reason(handle function_type, handle schema_reason);
std::pair<object, object> function_safety(handle functions, bool log_reasons, handle window_limit, handle node_limit);
object safe_rotations(handle functions, handle window_limit, handle node_limit);

// ---------------------------------------------------------------- analytics

object feature_specs(handle features);
object feature_names(handle features);
object valid_names(handle names, const Limits& lim);
object allowed_name_set(handle names);
bool skip_analytics_name(handle name, handle allowed_names, handle seen_names, const Limits& lim);
void add_stat(handle stats, handle name, handle yield_rate, handle evaluation_count, const Limits& lim);
void finalize_stats(handle stats, const Limits& lim);
object analytics_entries_list(handle analytics);  // list of 5-tuples
// (rows_seen, function_stats, feature_stats)
object analytics_stats(handle analytics, handle allowed_function_names, handle allowed_feature_names);
std::pair<object, object> yield_maps(handle analytics, handle function_names, handle feature_names);
object normalized_weights(handle names, handle stats);
object weight_entry(handle normalized_weights, handle stats, handle name);
object function_weight_report(handle safe_rotations, handle normalized_weights, handle stats);
object feature_weight_report(handle feature_specs, handle normalized_weights, handle stats);

// ---------------------------------------------------------------- draws

object cum_weights(handle names, handle yield_map);
object weighted_choice(handle items, handle cum_weights);
object build_expression(handle func_names, handle func_specs, handle func_weights, handle feat_names,
                        handle feat_weights, handle target_depth);

// The host's process-wide random module, with identity fast paths.
namespace rnd {
void init();                               // captures the module and the default bound methods
object random_module();
double random01();                         // random.random(), looked up now
// random.random while random.random and random.choice are still the host
// module's own (C code behind both), else null. Borrowed, held by module state.
PyObject* own_random();
double random01(PyObject* fn);             // fn(), as a float
object randint(handle a, handle b);        // random.randint(a, b)
long long randint_ll(long long a, long long b);
object choice(handle seq);                 // random.choice(seq)
}  // namespace rnd

// ---------------------------------------------------------------- templates

object random_weighted(handle ctx);
object analyze_random_weighted(handle ctx);
void init_generator_type();

// ---------------------------------------------------------------- late binding

// Module functions the generator calls through the namespace, so that a host
// replacing one is obeyed at the next use. While a name still holds the
// module's own function the C++ code is called directly.
namespace hooks {
enum Id {
    normalize,
    window_limit,
    node_limit,
    safe_rotations,
    feature_names,
    within_node_budget,
    max_depth_within_node_budget,
    yield_maps,
    cum_weights,
    build_expression,
    weighted_choice,
    function_safety,
    feature_specs,
    analytics_stats,
    normalized_weights,
    function_weight_report,
    feature_weight_report,
    // called by the module's own functions above and below them
    unsafe_function_reason,
    rotation_schema,
    declared_arity,
    schema_params,
    param_dict,
    config_child,
    numeric_bounds,
    numeric_range_label,
    numeric_bounds_reason,
    config_value_reason,
    window_bounded_param,
    window_budget_reason,
    numeric_default,
    first_choice,
    analytics_entries,
    valid_names,
    allowed_name_set,
    skip_analytics_name,
    add_stat,
    finalize_stats,
    weight_entry,
    is_finite_number,
    rw_float,
    rw_int,
    rw_positive_int,
    safe_yield_rate,
    era_value,
    buffer_duration_limit,
    min_node_count,
    worst_case_node_count,
    count
};
// The late binding of each name above.
const LateFn& late(Id id);
// Null object while the global is still our own function, else the replacement.
inline object replaced(Id id) { return late(id).replaced(); }
inline bool is_own(Id id) { return !late(id).replaced(); }
}  // namespace hooks

// a, b = value  (the host's unpacking rules and messages)
std::vector<object> unpack(handle value, std::size_t n);

// Calls module function `id` through the namespace when a host replaced it,
// else the C++ implementation `own`.
template <class Own>
object via(hooks::Id id, std::initializer_list<handle> args, Own&& own) {
    object r = hooks::replaced(id);
    if (r) return call(r, args);
    return own();
}

// `a, b = name(args)`: the same, for the functions that answer with a pair.
template <class Own>
std::pair<object, object> via_pair(hooks::Id id, std::initializer_list<handle> args, Own&& own) {
    object r = hooks::replaced(id);
    if (!r) return own();
    std::vector<object> v = unpack(call(r, args), 2);
    return {v[0], v[1]};
}

// The coercers as the generator's own functions call them: through the
// namespace, and in C++ while they are ours.
object int_late(handle value, handle dflt);            // _random_weighted_int
object float_late(handle value, handle dflt);          // _random_weighted_float
object positive_int_late(handle value, handle dflt);   // _random_weighted_positive_int
// _random_weighted_safe_yield_rate(value) as a double (a replacement's answer
// goes through float(), as the arithmetic after it would take it)
double safe_yield_rate_late(handle value, const Limits& lim);
// the same, the answer as it stands (ours: a float)
object safe_yield_rate_late_obj(handle value, const Limits& lim);

}  // namespace tw::gen
