// The names of the random-weighted generator as Python sees them: this file only
// registers, with a thin adapter where a Python-facing form differs from the C++ one.
#include "generator/gen.hpp"

namespace tw {
namespace gen {
namespace {

object pair_of(std::pair<object, object> p) { return tuple_of({p.first, p.second}); }

// screening
object f_function_safety(handle functions, handle log_reasons, handle window_limit, handle node_limit) { return pair_of(function_safety(functions, truthy(log_reasons), window_limit, node_limit)); }
object f_declared_arity(handle fn) { return pair_of(declared_arity(fn)); }
object f_schema_params(handle schema, handle node_limit) { return pair_of(schema_params(schema, node_limit)); }

// config parameters
object f_config_child(handle function_name, handle param, handle window_limit) { return pair_of(config_child(function_name, param, window_limit)); }
object f_value_reason(handle param_name, handle value, handle integer) { return config_value_reason(param_name, value, truthy(integer)); }
object f_numeric_default(handle param, handle integer) { return numeric_default(param, truthy(integer)); }

// analytics
object f_yield_maps(handle analytics, handle function_names, handle feature_names) { return pair_of(yield_maps(analytics, function_names, feature_names)); }
object f_entries(handle analytics) { return steal(check(PyObject_GetIter(analytics_entries_list(analytics).ptr()))); }
object f_valid_names(handle names) { return valid_names(names, Limits::read()); }
bool f_skip(handle name, handle allowed_names, handle seen_names) { return skip_analytics_name(name, allowed_names, seen_names, Limits::read()); }
void f_add_stat(handle stats, handle name, handle yield_rate, handle evaluation_count) {
    add_stat(stats, name, yield_rate, evaluation_count, Limits::read());
}
void f_finalize(handle stats) { finalize_stats(stats, Limits::read()); }

// budgets and coercers
object f_safe_yield(handle value) { return float_of(safe_yield_rate(value, Limits::read().max_abs_yield_rate)); }

}  // namespace
}  // namespace gen

void register_generator(handle m) {
    using namespace gen;
    rnd::init();
    init_generator_type();

    def_function<random_weighted>(m, "random_weighted(ctx)",
                                  "Built-in template: yields random expression graphs over the era's vocabulary, "
                                  "weighting functions and features by how often they passed. Pass it to search().");
    def_function<analyze_random_weighted>(m, "analyze_random_weighted(ctx)",
                                          "What random_weighted would use for this context: the rotations and "
                                          "features it may draw with their weights, and why other functions are "
                                          "refused. Generates and changes nothing.");

    def_function<build_expression>(m, "_build_random_signal_expression(func_names, func_specs, func_weights, feat_names, "
                        "feat_weights, target_depth)");
    def_function<weighted_choice>(m, "_weighted_choice(items, cum_weights)");
    def_function<cum_weights>(m, "_random_weighted_cum_weights(names, yield_map)");

    def_function<safe_rotations>(m, "_random_weighted_safe_rotations(functions, window_limit=None, node_limit=None)");
    def_function<f_function_safety>(m, "_random_weighted_function_safety(functions, log_reasons, window_limit=None, node_limit=None)");
    def_function<unsafe_function_reason>(m, "_random_weighted_unsafe_function_reason(function_type, schema_reason)");
    def_function<rotation_schema>(m, "_random_weighted_rotation_schema(fn, window_limit=None, node_limit=None)");
    def_function<f_declared_arity>(m, "_random_weighted_declared_arity(fn)");
    def_function<f_schema_params>(m, "_random_weighted_schema_params(schema, node_limit=None)");
    def_function<param_dict>(m, "_random_weighted_param_dict(raw_param, default_name)");

    def_function<f_config_child>(m, "_random_weighted_config_child(function_name, param, window_limit=None)");
    def_function<numeric_bounds>(m, "_random_weighted_numeric_bounds(param)");
    def_function<numeric_range_label>(m, "_random_weighted_numeric_range_label(has_min, min_value, has_max, max_value)");
    def_function<numeric_bounds_reason>(m, "_random_weighted_numeric_bounds_reason(param, value)");
    def_function<f_value_reason>(m, "_random_weighted_config_value_reason(param_name, value, integer)");
    def_function<window_bounded_param>(m, "_random_weighted_window_bounded_param(param, window_limit)");
    def_function<window_budget_reason>(m, "_random_weighted_window_budget_reason(param_name, value, window_limit)");
    def_function<f_numeric_default>(m, "_random_weighted_numeric_default(param, integer)");
    def_function<first_choice>(m, "_random_weighted_first_choice(param)");

    def_function<feature_names>(m, "_random_weighted_feature_names(features)");
    def_function<feature_specs>(m, "_random_weighted_feature_specs(features)");
    def_function<f_yield_maps>(m, "_random_weighted_yield_maps(analytics, function_names=None, feature_names=None)");
    def_function<f_entries>(m, "_random_weighted_analytics_entries(analytics)");
    def_function<f_valid_names>(m, "_random_weighted_valid_names(names)");
    def_function<analytics_stats>(m, "_random_weighted_analytics_stats(analytics, allowed_function_names=None, allowed_feature_names=None)");
    def_function<allowed_name_set>(m, "_random_weighted_allowed_name_set(names)");
    def_function<f_skip>(m, "_random_weighted_skip_analytics_name(name, allowed_names, seen_names)");
    def_function<f_add_stat>(m, "_random_weighted_add_stat(stats, name, yield_rate, evaluation_count)");
    def_function<f_finalize>(m, "_random_weighted_finalize_stats(stats)");
    def_function<normalized_weights>(m, "_random_weighted_normalized_weights(names, stats)");
    def_function<function_weight_report>(m, "_random_weighted_function_weight_report(safe_rotations, normalized_weights, stats)");
    def_function<feature_weight_report>(m, "_random_weighted_feature_weight_report(feature_specs, normalized_weights, stats)");
    def_function<weight_entry>(m, "_random_weighted_weight_entry(normalized_weights, stats, name)");

    def_function<is_finite_number>(m, "_random_weighted_is_finite_number(value)");
    def_function<rw_float>(m, "_random_weighted_float(value, default)");
    def_function<rw_int>(m, "_random_weighted_int(value, default)");
    def_function<rw_positive_int>(m, "_random_weighted_positive_int(value, default)");
    def_function<f_safe_yield>(m, "_random_weighted_safe_yield_rate(value)");
    def_function<era_value>(m, "_random_weighted_era_value(ctx, name, default)");
    def_function<node_limit>(m, "_random_weighted_node_limit(ctx)");
    def_function<buffer_duration_limit>(m, "_random_weighted_buffer_duration_limit(ctx)");
    def_function<window_limit>(m, "_random_weighted_window_limit(ctx, max_depth)");
    def_function<min_node_count>(m, "_random_weighted_min_node_count(spec)");
    def_function<rotations_within_node_budget>(m, "_random_weighted_rotations_within_node_budget(rotations, node_limit)");
    def_function<max_depth_within_node_budget>(m, "_random_weighted_max_depth_within_node_budget(rotations, requested_depth, node_limit)");
    def_function<worst_case_node_count>(m, "_random_weighted_worst_case_node_count(rotations, depth, node_limit)");
}

}  // namespace tw
