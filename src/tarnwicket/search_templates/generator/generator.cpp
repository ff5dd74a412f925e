// Registration of the random-weighted generator's names in the module.
#include "generator/gen.hpp"

namespace tw {
namespace gen {
namespace {

object pair_of(std::pair<object, object> p) { return tuple_of({p.first, p.second}); }
object bool_obj(bool b) { return bool_of(b); }

// entry and analysis
object f_random_weighted(Args& a) { return random_weighted(a[0]); }
object f_analyze(Args& a) { return analyze_random_weighted(a[0]); }

// draw
object f_build(Args& a) { return build_expression(a[0], a[1], a[2], a[3], a[4], a[5]); }
object f_weighted_choice(Args& a) { return weighted_choice(a[0], a[1]); }
object f_cum_weights(Args& a) { return cum_weights(a[0], a[1]); }

// screening
object f_safe_rotations(Args& a) { return safe_rotations(a[0], a[1], a[2]); }
object f_function_safety(Args& a) { return pair_of(function_safety(a[0], truthy(a[1]), a[2], a[3])); }
object f_unsafe_reason(Args& a) { return unsafe_function_reason(a[0], a[1]); }
object f_rotation_schema(Args& a) { return rotation_schema(a[0], a[1], a[2]); }
object f_declared_arity(Args& a) { return pair_of(declared_arity(a[0])); }
object f_schema_params(Args& a) { return pair_of(schema_params(a[0], a[1])); }
object f_param_dict(Args& a) { return param_dict(a[0], a[1]); }

// config parameters
object f_config_child(Args& a) { return pair_of(config_child(a[0], a[1], a[2])); }
object f_numeric_bounds(Args& a) { return numeric_bounds(a[0]); }
object f_range_label(Args& a) { return numeric_range_label(a[0], a[1], a[2], a[3]); }
object f_bounds_reason(Args& a) { return numeric_bounds_reason(a[0], a[1]); }
object f_value_reason(Args& a) { return config_value_reason(a[0], a[1], truthy(a[2])); }
object f_window_bounded(Args& a) { return window_bounded_param(a[0], a[1]); }
object f_window_reason(Args& a) { return window_budget_reason(a[0], a[1], a[2]); }
object f_numeric_default(Args& a) { return numeric_default(a[0], truthy(a[1])); }
object f_first_choice(Args& a) { return first_choice(a[0]); }

// analytics
object f_feature_names(Args& a) { return feature_names(a[0]); }
object f_feature_specs(Args& a) { return feature_specs(a[0]); }
object f_yield_maps(Args& a) { return pair_of(yield_maps(a[0], a[1], a[2])); }
object f_entries(Args& a) { return steal(PyObject_GetIter(analytics_entries_list(a[0]).ptr())); }
object f_valid_names(Args& a) { return valid_names(a[0], Limits::read()); }
object f_stats(Args& a) { return analytics_stats(a[0], a[1], a[2]); }
object f_allowed(Args& a) { return allowed_name_set(a[0]); }
object f_skip(Args& a) { return bool_obj(skip_analytics_name(a[0], a[1], a[2], Limits::read())); }
object f_add_stat(Args& a) {
    add_stat(a[0], a[1], a[2], a[3], Limits::read());
    return none();
}
object f_finalize(Args& a) {
    finalize_stats(a[0], Limits::read());
    return none();
}
object f_normalized(Args& a) { return normalized_weights(a[0], a[1]); }
object f_function_report(Args& a) { return function_weight_report(a[0], a[1], a[2]); }
object f_feature_report(Args& a) { return feature_weight_report(a[0], a[1], a[2]); }
object f_weight_entry(Args& a) { return weight_entry(a[0], a[1], a[2]); }

// budgets and coercers
object f_is_finite(Args& a) { return bool_obj(is_finite_number(a[0])); }
object f_float(Args& a) { return rw_float(a[0], a[1]); }
object f_int(Args& a) { return rw_int(a[0], a[1]); }
object f_positive_int(Args& a) { return rw_positive_int(a[0], a[1]); }
object f_safe_yield(Args& a) { return float_of(safe_yield_rate(a[0], Limits::read().max_abs_yield_rate)); }
object f_era_value(Args& a) { return era_value(a[0], a[1], a[2]); }
object f_node_limit(Args& a) { return node_limit(a[0]); }
object f_buffer_limit(Args& a) { return buffer_duration_limit(a[0]); }
object f_window_limit(Args& a) { return window_limit(a[0], a[1]); }
object f_min_nodes(Args& a) { return min_node_count(a[0]); }
object f_within_budget(Args& a) { return rotations_within_node_budget(a[0], a[1]); }
object f_max_depth(Args& a) { return max_depth_within_node_budget(a[0], a[1], a[2]); }
object f_worst_case(Args& a) { return worst_case_node_count(a[0], a[1], a[2]); }

template <Impl F>
void def_hooked(handle m, hooks::Id id, const char* sig) {
    object fn = def_function<F>(m, sig);
    hooks::original[id] = fn.release().ptr();  // kept for the identity tests
}

}  // namespace
}  // namespace gen

void register_generator(handle m) {
    using namespace gen;
    using hooks::Id;
    rnd::init();
    init_generator_type();
    hooks::original[hooks::normalize] = global(ID("_normalize_template_vocabulary")).release().ptr();

    def_function<f_random_weighted>(m, "random_weighted(ctx)");
    def_function<f_analyze>(m, "analyze_random_weighted(ctx)");

    def_hooked<f_build>(m, hooks::build_expression,
                        "_build_random_signal_expression(func_names, func_specs, func_weights, feat_names, "
                        "feat_weights, target_depth)");
    def_hooked<f_weighted_choice>(m, hooks::weighted_choice, "_weighted_choice(items, cum_weights)");
    def_hooked<f_cum_weights>(m, hooks::cum_weights, "_random_weighted_cum_weights(names, yield_map)");

    def_hooked<f_safe_rotations>(m, hooks::safe_rotations,
                                 "_random_weighted_safe_rotations(functions, window_limit=None, node_limit=None)");
    def_hooked<f_function_safety>(
        m, hooks::function_safety,
        "_random_weighted_function_safety(functions, log_reasons, window_limit=None, node_limit=None)");
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

    def_hooked<f_feature_names>(m, hooks::feature_names, "_random_weighted_feature_names(features)");
    def_hooked<f_feature_specs>(m, hooks::feature_specs, "_random_weighted_feature_specs(features)");
    def_hooked<f_yield_maps>(m, hooks::yield_maps,
                             "_random_weighted_yield_maps(analytics, function_names=None, feature_names=None)");
    def_function<f_entries>(m, "_random_weighted_analytics_entries(analytics)");
    def_function<f_valid_names>(m, "_random_weighted_valid_names(names)");
    def_hooked<f_stats>(
        m, hooks::analytics_stats,
        "_random_weighted_analytics_stats(analytics, allowed_function_names=None, allowed_feature_names=None)");
    def_function<f_allowed>(m, "_random_weighted_allowed_name_set(names)");
    def_function<f_skip>(m, "_random_weighted_skip_analytics_name(name, allowed_names, seen_names)");
    def_function<f_add_stat>(m, "_random_weighted_add_stat(stats, name, yield_rate, evaluation_count)");
    def_function<f_finalize>(m, "_random_weighted_finalize_stats(stats)");
    def_hooked<f_normalized>(m, hooks::normalized_weights, "_random_weighted_normalized_weights(names, stats)");
    def_hooked<f_function_report>(
        m, hooks::function_weight_report,
        "_random_weighted_function_weight_report(safe_rotations, normalized_weights, stats)");
    def_hooked<f_feature_report>(m, hooks::feature_weight_report,
                                 "_random_weighted_feature_weight_report(feature_specs, normalized_weights, stats)");
    def_function<f_weight_entry>(m, "_random_weighted_weight_entry(normalized_weights, stats, name)");

    def_function<f_is_finite>(m, "_random_weighted_is_finite_number(value)");
    def_function<f_float>(m, "_random_weighted_float(value, default)");
    def_function<f_int>(m, "_random_weighted_int(value, default)");
    def_function<f_positive_int>(m, "_random_weighted_positive_int(value, default)");
    def_function<f_safe_yield>(m, "_random_weighted_safe_yield_rate(value)");
    def_function<f_era_value>(m, "_random_weighted_era_value(ctx, name, default)");
    def_hooked<f_node_limit>(m, hooks::node_limit, "_random_weighted_node_limit(ctx)");
    def_function<f_buffer_limit>(m, "_random_weighted_buffer_duration_limit(ctx)");
    def_hooked<f_window_limit>(m, hooks::window_limit, "_random_weighted_window_limit(ctx, max_depth)");
    def_function<f_min_nodes>(m, "_random_weighted_min_node_count(spec)");
    def_hooked<f_within_budget>(m, hooks::within_node_budget,
                                "_random_weighted_rotations_within_node_budget(rotations, node_limit)");
    def_hooked<f_max_depth>(m, hooks::max_depth_within_node_budget,
                            "_random_weighted_max_depth_within_node_budget(rotations, requested_depth, node_limit)");
    def_function<f_worst_case>(m, "_random_weighted_worst_case_node_count(rotations, depth, node_limit)");
}

}  // namespace tw
