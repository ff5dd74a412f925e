// `analyze_random_weighted`: what the generator would use for a context, with
// cold and warm weights, and why the other functions were refused.
#include "generator/draw.hpp"
#include "vocabulary/normalize.hpp"

namespace tw::gen {


object analyze_random_weighted(handle ctx) {
    object raw_vocab = get_attr(ctx, ID("vocabulary"));
    object vocab = via(hooks::normalize, {raw_vocab}, [&] { return vocab::normalize(raw_vocab); });
    object empty1 = new_list(), empty2 = new_list();
    object functions = dict_get(vocab, ID("functions"), empty1);
    object features = dict_get(vocab, ID("features"), empty2);

    object raw_depth = get_attr(ctx, ID("max_depth"));
    object max_depth;
    PyObject* md = PyNumber_Long(raw_depth.ptr());
    if (md) {
        max_depth = steal(md);
    } else {
        if (!(PyErr_ExceptionMatches(PyExc_TypeError) || PyErr_ExceptionMatches(PyExc_ValueError) ||
              PyErr_ExceptionMatches(PyExc_OverflowError)))
            throw_py();
        PyErr_Clear();
        max_depth = int_of(2);
    }
    object wl = via(hooks::window_limit, {ctx, max_depth}, [&] { return window_limit(ctx, max_depth); });
    object nl = via(hooks::node_limit, {ctx}, [&] { return node_limit(ctx); });
    object screened = via(hooks::function_safety, {functions, Py_False, wl, nl}, [&] {
        auto [safe, unsafe] = function_safety(functions, false, wl, nl);
        return tuple_of({safe, unsafe});
    });
    auto pair = unpack(screened, 2);
    object safe = pair[0], unsafe = pair[1];
    safe = via(hooks::within_node_budget, {safe, nl}, [&] { return rotations_within_node_budget(safe, nl); });
    object fspecs = via(hooks::feature_specs, {features}, [&] { return feature_specs(features); });
    object analytics = get_attr_or_none(ctx, ID("analytics"));
    object fnames = spec_names(safe), tnames = spec_names(fspecs);
    object stats = via(hooks::analytics_stats, {analytics, fnames, tnames},
                       [&] { return analytics_stats(analytics, fnames, tnames); });
    auto triple = unpack(stats, 3);
    object fstats = triple[1], tstats = triple[2];

    object fnorm = via(hooks::normalized_weights, {fnames, fstats}, [&] { return normalized_weights(fnames, fstats); });
    object freport = via(hooks::function_weight_report, {safe, fnorm, fstats},
                         [&] { return function_weight_report(safe, fnorm, fstats); });
    object tnorm = via(hooks::normalized_weights, {tnames, tstats}, [&] { return normalized_weights(tnames, tstats); });
    object treport = via(hooks::feature_weight_report, {fspecs, tnorm, tstats},
                         [&] { return feature_weight_report(fspecs, tnorm, tstats); });

    object report = new_dict();
    dict_set(report, ID("analytics_rows_seen"), triple[0]);
    dict_set(report, ID("function_weights"), freport);
    dict_set(report, ID("feature_weights"), treport);
    dict_set(report, ID("unsafe_functions"), unsafe);
    return report;
}

}  // namespace tw::gen
