// Registration of the random-weighted generator's names in the module.
#include "generator/gen.hpp"

namespace tw {
namespace gen {
namespace {

object pair_of(std::pair<object, object> p) { return tuple_of({p.first, p.second}); }
object bool_obj(bool b) { return bool_of(b); }

// entry and analysis
object f_random_weighted(handle ctx) { return random_weighted(ctx); }
object f_analyze(handle ctx) { return analyze_random_weighted(ctx); }

// draw
object f_build(handle func_names, handle func_specs, handle func_weights, handle feat_names, handle feat_weights, handle target_depth) { return build_expression(func_names, func_specs, func_weights, feat_names, feat_weights, target_depth); }
object f_weighted_choice(handle items, handle cum_weights) { return weighted_choice(items, cum_weights); }
object f_cum_weights(handle names, handle yield_map) { return cum_weights(names, yield_map); }

// screening
object f_safe_rotations(handle functions, handle window_limit, handle node_limit) { return safe_rotations(functions, window_limit, node_limit); }
object f_function_safety(handle functions, handle log_reasons, handle window_limit, handle node_limit) { return pair_of(function_safety(functions, truthy(log_reasons), window_limit, node_limit)); }
object f_unsafe_reason(handle function_type, handle schema_reason) { return unsafe_function_reason(function_type, schema_reason); }
object f_rotation_schema(handle fn, handle window_limit, handle node_limit) { return rotation_schema(fn, window_limit, node_limit); }
object f_declared_arity(handle fn) { return pair_of(declared_arity(fn)); }
object f_schema_params(handle schema, handle node_limit) { return pair_of(schema_params(schema, node_limit)); }
object f_param_dict(handle raw_param, handle default_name) { return param_dict(raw_param, default_name); }

// config parameters
object f_config_child(handle function_name, handle param, handle window_limit) { return pair_of(config_child(function_name, param, window_limit)); }
object f_numeric_bounds(handle param) { return numeric_bounds(param); }
object f_range_label(handle has_min, handle min_value, handle has_max, handle max_value) { return numeric_range_label(has_min, min_value, has_max, max_value); }
object f_bounds_reason(handle param, handle value) { return numeric_bounds_reason(param, value); }
object f_value_reason(handle param_name, handle value, handle integer) { return config_value_reason(param_name, value, truthy(integer)); }
object f_window_bounded(handle param, handle window_limit) { return window_bounded_param(param, window_limit); }
object f_window_reason(handle param_name, handle value, handle window_limit) { return window_budget_reason(param_name, value, window_limit); }
object f_numeric_default(handle param, handle integer) { return numeric_default(param, truthy(integer)); }
object f_first_choice(handle param) { return first_choice(param); }

// analytics
object f_feature_names(handle features) { return feature_names(features); }
object f_feature_specs(handle features) { return feature_specs(features); }
object f_yield_maps(handle analytics, handle function_names, handle feature_names) { return pair_of(yield_maps(analytics, function_names, feature_names)); }
object f_entries(handle analytics) { return steal(PyObject_GetIter(analytics_entries_list(analytics).ptr())); }
object f_valid_names(handle names) { return valid_names(names, Limits::read()); }
object f_stats(handle analytics, handle allowed_function_names, handle allowed_feature_names) { return analytics_stats(analytics, allowed_function_names, allowed_feature_names); }
object f_allowed(handle names) { return allowed_name_set(names); }
object f_skip(handle name, handle allowed_names, handle seen_names) { return bool_obj(skip_analytics_name(name, allowed_names, seen_names, Limits::read())); }
object f_add_stat(handle stats, handle name, handle yield_rate, handle evaluation_count) {
    add_stat(stats, name, yield_rate, evaluation_count, Limits::read());
    return none();
}
object f_finalize(handle stats) {
    finalize_stats(stats, Limits::read());
    return none();
}
object f_normalized(handle names, handle stats) { return normalized_weights(names, stats); }
object f_function_report(handle safe_rotations, handle normalized_weights, handle stats) { return function_weight_report(safe_rotations, normalized_weights, stats); }
object f_feature_report(handle feature_specs, handle normalized_weights, handle stats) { return feature_weight_report(feature_specs, normalized_weights, stats); }
object f_weight_entry(handle normalized_weights, handle stats, handle name) { return weight_entry(normalized_weights, stats, name); }

// budgets and coercers
object f_is_finite(handle value) { return bool_obj(is_finite_number(value)); }
object f_float(handle value, handle default_) { return rw_float(value, default_); }
object f_int(handle value, handle default_) { return rw_int(value, default_); }
object f_positive_int(handle value, handle default_) { return rw_positive_int(value, default_); }
object f_safe_yield(handle value) { return float_of(safe_yield_rate(value, Limits::read().max_abs_yield_rate)); }
object f_era_value(handle ctx, handle name, handle default_) { return era_value(ctx, name, default_); }
object f_node_limit(handle ctx) { return node_limit(ctx); }
object f_buffer_limit(handle ctx) { return buffer_duration_limit(ctx); }
object f_window_limit(handle ctx, handle max_depth) { return window_limit(ctx, max_depth); }
object f_min_nodes(handle spec) { return min_node_count(spec); }
object f_within_budget(handle rotations, handle node_limit) { return rotations_within_node_budget(rotations, node_limit); }
object f_max_depth(handle rotations, handle requested_depth, handle node_limit) { return max_depth_within_node_budget(rotations, requested_depth, node_limit); }
object f_worst_case(handle rotations, handle depth, handle node_limit) { return worst_case_node_count(rotations, depth, node_limit); }

}  // namespace
}  // namespace gen

void register_generator(handle m) {
    using namespace gen;
    rnd::init();
    init_generator_type();

    def_function<f_random_weighted>(m, "random_weighted(ctx)");
    def_function<f_analyze>(m, "analyze_random_weighted(ctx)");

    def_function<f_build>(m, "_build_random_signal_expression(func_names, func_specs, func_weights, feat_names, "
                        "feat_weights, target_depth)");
    def_function<f_weighted_choice>(m, "_weighted_choice(items, cum_weights)");
    def_function<f_cum_weights>(m, "_random_weighted_cum_weights(names, yield_map)");

    def_function<f_safe_rotations>(m, "_random_weighted_safe_rotations(functions, window_limit=None, node_limit=None)");
    def_function<f_function_safety>(m, "_random_weighted_function_safety(functions, log_reasons, window_limit=None, node_limit=None)");
    def_function<f_unsafe_reason>(m, "_random_weighted_unsafe_function_reason(function_type, schema_reason)");
    def_function<f_rotation_schema>(m, "_random_weighted_rotation_schema(fn, window_limit=None, node_limit=None)");
    def_function<f_declared_arity>(m, "_random_weighted_declared_arity(fn)");
    def_function<f_schema_params>(m, "_random_weighted_schema_params(schema, node_limit=None)");
    def_function<f_param_dict>(m, "_random_weighted_param_dict(raw_param, default_name)");

    def_function<f_config_child>(m, "_random_weighted_config_child(function_name, param, window_limit=None)");
    def_function<f_numeric_bounds>(m, "_random_weighted_numeric_bounds(param)");
    def_function<f_range_label>(m, "_random_weighted_numeric_range_label(has_min, min_value, has_max, max_value)");
    def_function<f_bounds_reason>(m, "_random_weighted_numeric_bounds_reason(param, value)");
    def_function<f_value_reason>(m, "_random_weighted_config_value_reason(param_name, value, integer)");
    def_function<f_window_bounded>(m, "_random_weighted_window_bounded_param(param, window_limit)");
    def_function<f_window_reason>(m, "_random_weighted_window_budget_reason(param_name, value, window_limit)");
    def_function<f_numeric_default>(m, "_random_weighted_numeric_default(param, integer)");
    def_function<f_first_choice>(m, "_random_weighted_first_choice(param)");

    def_function<f_feature_names>(m, "_random_weighted_feature_names(features)");
    def_function<f_feature_specs>(m, "_random_weighted_feature_specs(features)");
    def_function<f_yield_maps>(m, "_random_weighted_yield_maps(analytics, function_names=None, feature_names=None)");
    def_function<f_entries>(m, "_random_weighted_analytics_entries(analytics)");
    def_function<f_valid_names>(m, "_random_weighted_valid_names(names)");
    def_function<f_stats>(m, "_random_weighted_analytics_stats(analytics, allowed_function_names=None, allowed_feature_names=None)");
    def_function<f_allowed>(m, "_random_weighted_allowed_name_set(names)");
    def_function<f_skip>(m, "_random_weighted_skip_analytics_name(name, allowed_names, seen_names)");
    def_function<f_add_stat>(m, "_random_weighted_add_stat(stats, name, yield_rate, evaluation_count)");
    def_function<f_finalize>(m, "_random_weighted_finalize_stats(stats)");
    def_function<f_normalized>(m, "_random_weighted_normalized_weights(names, stats)");
    def_function<f_function_report>(m, "_random_weighted_function_weight_report(safe_rotations, normalized_weights, stats)");
    def_function<f_feature_report>(m, "_random_weighted_feature_weight_report(feature_specs, normalized_weights, stats)");
    def_function<f_weight_entry>(m, "_random_weighted_weight_entry(normalized_weights, stats, name)");

    def_function<f_is_finite>(m, "_random_weighted_is_finite_number(value)");
    def_function<f_float>(m, "_random_weighted_float(value, default)");
    def_function<f_int>(m, "_random_weighted_int(value, default)");
    def_function<f_positive_int>(m, "_random_weighted_positive_int(value, default)");
    def_function<f_safe_yield>(m, "_random_weighted_safe_yield_rate(value)");
    def_function<f_era_value>(m, "_random_weighted_era_value(ctx, name, default)");
    def_function<f_node_limit>(m, "_random_weighted_node_limit(ctx)");
    def_function<f_buffer_limit>(m, "_random_weighted_buffer_duration_limit(ctx)");
    def_function<f_window_limit>(m, "_random_weighted_window_limit(ctx, max_depth)");
    def_function<f_min_nodes>(m, "_random_weighted_min_node_count(spec)");
    def_function<f_within_budget>(m, "_random_weighted_rotations_within_node_budget(rotations, node_limit)");
    def_function<f_max_depth>(m, "_random_weighted_max_depth_within_node_budget(rotations, requested_depth, node_limit)");
    def_function<f_worst_case>(m, "_random_weighted_worst_case_node_count(rotations, depth, node_limit)");
}

}  // namespace tw
