// Analytics weighting: feature screening, and yield rates per function and
// feature from an analytics snapshot that is bounded and never trusted.
#include "generator/gen.hpp"

#include <algorithm>
#include <climits>

namespace tw::gen {


// ---------------------------------------------------------------- features

object feature_specs(handle features) {
    object specs = new_list();
    if (!is_list(features)) {
        log_info("random_weighted excluded feature vocabulary: features must be a list");
        return specs;
    }
    object empty = str_of("");
    object it = steal(PyObject_GetIter(features.ptr()));
    while (PyObject* p = PyIter_Next(it.ptr())) {
        object entry = steal(p);
        if (!is_dict(entry)) {
            log_info("random_weighted excluded feature entry: expected dict metadata");
            continue;
        }
        object name = get(entry, ID("name"));
        if (!is_nonempty_str(name)) {
            log_info("random_weighted excluded feature with missing name");
            continue;
        }
        object spec = new_dict();
        dict_set(spec, ID("name"), name);
        dict_set(spec, ID("feature_family"), get(entry, ID("feature_family"), empty));
        dict_set(spec, ID("feature_subfamily"), get(entry, ID("feature_subfamily"), empty));
        list_append(specs, spec);
    }
    if (PyErr_Occurred()) throw_py();
    return specs;
}

object spec_names(handle specs) {
    object names = new_list();
    object it = steal(PyObject_GetIter(specs.ptr()));
    while (PyObject* p = PyIter_Next(it.ptr())) {
        object spec = steal(p);
        list_append(names, getitem(spec, ID("name")));
    }
    if (PyErr_Occurred()) throw_py();
    return names;
}

object feature_names(handle features) {
    return spec_names(via(hooks::feature_specs, {features}, [&] { return feature_specs(features); }));
}

// ---------------------------------------------------------------- rows

object valid_names(handle names, const Limits& lim) {
    object out = new_list();
    if (!(is_list(names) || is_tuple(names) || PyAnySet_Check(names.ptr()))) return out;
    object it = steal(PyObject_GetIter(names.ptr()));
    for (long long read = 0; read < lim.max_names_per_row; ++read) {
        PyObject* p = PyIter_Next(it.ptr());
        if (!p) break;
        object name = steal(p);
        if (is_nonempty_str(name)) list_append(out, name);
    }
    if (PyErr_Occurred()) throw_py();
    return out;
}

struct Entry {
    object function_names;  // list, or null for a map row naming a feature
    object feature_names;
    object single;          // a map row's name
    bool single_is_feature = false;
    double yield_rate = 0.0;
    object yield_obj;       // what a replaced _random_weighted_float gave; null while it is ours
    object evaluation_count;
};

// The row readers' helpers, through the namespace unless `own` (all of them ours).
struct RowHelpers {
    bool own;
    const Limits& lim;
    static bool all_own() {
        return hooks::is_own(hooks::rw_float) && hooks::is_own(hooks::rw_int) && hooks::is_own(hooks::valid_names);
    }
    void yield_rate(handle value, Entry& e) const {
        if (own) {
            if (!rw_float_d(value, e.yield_rate)) e.yield_rate = 0.0;
            return;
        }
        object zero_f = float_of(0.0);
        e.yield_obj = float_late(value, zero_f);
    }
    object count(handle value) const {
        object zero = int_of(0);
        return own ? rw_int(value, zero) : int_late(value, zero);
    }
    object names(handle value) const {
        if (own) return valid_names(value, lim);
        return via(hooks::valid_names, {value}, [&] { return valid_names(value, lim); });
    }
};

static bool swallowed_row_error() {
    if (PyErr_ExceptionMatches(PyExc_IndexError) || PyErr_ExceptionMatches(PyExc_KeyError) ||
        PyErr_ExceptionMatches(PyExc_TypeError) || PyErr_ExceptionMatches(PyExc_AttributeError)) {
        PyErr_Clear();
        return true;
    }
    return false;
}

static bool map_row(handle row, Entry& e, const RowHelpers& h) {
    object empty = str_of("");
    object name = get(row, ID("name"), empty);
    if (!is_nonempty_str(name)) return false;
    object zero_f = float_of(0.0), zero = int_of(0);
    h.yield_rate(get(row, ID("yield_rate"), zero_f), e);
    e.evaluation_count = h.count(get(row, ID("evaluation_count"), zero));
    object function = str_of("function");
    object rtype = get(row, ID("type"), function);
    object feature = str_of("feature");
    e.single = name;
    e.single_is_feature = PyUnicode_CheckExact(rtype.ptr()) ? PyUnicode_Compare(rtype.ptr(), feature.ptr()) == 0
                                                            : cmp(rtype, feature, Py_EQ);
    return true;
}

static bool object_row(handle row, Entry& e, const RowHelpers& h) {
    object group_key = get_attr_or_none(row, ID("group_key"));
    object windows = get_attr_or_none(row, ID("windows"));
    if (!truthy(group_key) || !truthy(windows)) return false;
    if (!(is_list(group_key) || is_tuple(group_key))) return false;
    Py_ssize_t key_len = PyObject_Size(group_key.ptr());
    if (key_len < 0) throw_py();
    if (key_len != 2) return false;
    object window;
    try {
        object zero_idx = int_of(0);
        window = getitem(windows, zero_idx);
        object zero_f = float_of(0.0);
        h.yield_rate(get_attr_or(window, ID("yield_rate"), zero_f), e);
        e.function_names = h.names(steal(PySequence_GetItem(group_key.ptr(), 0)));
        e.feature_names = h.names(steal(PySequence_GetItem(group_key.ptr(), 1)));
    } catch (py::error_already_set& err) {
        err.restore();
        if (swallowed_row_error()) return false;
        throw_py();
    }
    if (!truthy(e.function_names) && !truthy(e.feature_names)) return false;
    object zero = int_of(0);
    object window_count = get_attr_or(window, ID("evaluation_count"), zero);
    object count = h.count(get_attr_or(row, ID("evaluation_count"), window_count));
    if (cmp(count, zero, Py_LE)) count = h.count(get_attr_or(window, ID("evaluation_count"), zero));
    e.evaluation_count = count;
    return true;
}

// Calls f(entry) for each accepted row of the first max_analytics_rows rows;
// `own`: the row readers' helpers were found to be ours when the operation began.
template <class F>
static void for_each_entry(handle analytics, const Limits& lim, bool own, F&& f) {
    RowHelpers h{own, lim};
    if (!truthy(analytics)) return;
    object rows = get_attr_or_none(analytics, ID("rows"));
    if (!truthy(rows)) return;
    PyObject* itp = PyObject_GetIter(rows.ptr());
    if (!itp) {
        if (!PyErr_ExceptionMatches(PyExc_TypeError)) throw_py();
        PyErr_Clear();
        return;
    }
    object it = steal(itp);
    for (long long read = 0; read < lim.max_analytics_rows; ++read) {
        PyObject* p = PyIter_Next(it.ptr());
        if (!p) break;
        object row = steal(p);
        Entry e;
        bool ok = is_dict(row) ? map_row(row, e, h) : object_row(row, e, h);
        if (ok) f(e);
    }
    if (PyErr_Occurred()) throw_py();
}

static object names_list(const Entry& e, bool feature) {
    if (e.single) {
        object l = new_list();
        if (e.single_is_feature == feature) list_append(l, e.single);
        return l;
    }
    return feature ? e.feature_names : e.function_names;
}

object analytics_entries_list(handle analytics) {
    Limits lim = Limits::read();
    object out = new_list();
    object one = int_of(1);
    for_each_entry(analytics, lim, RowHelpers::all_own(), [&](Entry& e) {
        object yr = e.yield_obj ? e.yield_obj : float_of(e.yield_rate);
        list_append(out, tuple_of({one, names_list(e, false), names_list(e, true), yr, e.evaluation_count}));
    });
    return out;
}

// ---------------------------------------------------------------- accumulation

object allowed_name_set(handle names) {
    if (is_none(names)) return none();
    object s = steal(PySet_New(nullptr));
    object it = steal(PyObject_GetIter(names.ptr()));
    while (PyObject* p = PyIter_Next(it.ptr())) {
        object name = steal(p);
        if (is_nonempty_str(name)) check_int(PySet_Add(s.ptr(), name.ptr()));
    }
    if (PyErr_Occurred()) throw_py();
    return s;
}

bool skip_analytics_name(handle name, handle allowed_names, handle seen_names, const Limits& lim) {
    if (!is_nonempty_str(name)) return true;
    if (!is_none(allowed_names) && !contains(allowed_names, name)) return true;
    if (contains(seen_names, name)) return false;
    Py_ssize_t n = PyObject_Size(seen_names.ptr());
    if (n < 0) throw_py();
    if (n >= lim.max_unique_names) return true;
    if (PySet_CheckExact(seen_names.ptr()))
        check_int(PySet_Add(seen_names.ptr(), name.ptr()));
    else
        call_method(seen_names, ID("add"), {name});
    return false;
}

// `own`: _random_weighted_int is known to be ours for the whole operation.
static long long clamped_count(handle evaluation_count, const Limits& lim, bool own = false) {
    object zero = int_of(0);
    object c = own ? rw_int(evaluation_count, zero) : int_late(evaluation_count, zero);
    long long count = is_int(c) ? clamp_ll(c) : clamp_ll(py_int(c));
    return std::min(std::max(count, 0LL), lim.max_analytics_weight);
}

void add_stat(handle stats, handle name, handle yield_rate, handle evaluation_count, const Limits& lim) {
    long long count = clamped_count(evaluation_count, lim);
    double weight = count > 0 ? (double)count : 1.0;
    double safe = safe_yield_rate_late(yield_rate, lim);
    if (!contains(stats, name)) {
        object item = new_dict();
        dict_set(item, ID("yield_total"), float_of(0.0));
        dict_set(item, ID("weight_total"), float_of(0.0));
        dict_set(item, ID("evaluation_count"), int_of(0));
        setitem(stats, name, item);
    }
    object item = getitem(stats, name);
    auto bump = [&](handle key, handle by) {
        object cur = getitem(item, key);
        setitem(item, key, steal(PyNumber_InPlaceAdd(cur.ptr(), by.ptr())));
    };
    bump(ID("yield_total"), float_of(safe * weight));
    bump(ID("weight_total"), float_of(weight));
    bump(ID("evaluation_count"), int_of(count));
}

static std::pair<double, double> finalized_rates(double weight_total, double yield_total, double max_abs) {
    double rate = 0.0;
    if (weight_total > 0.0) rate = safe_yield_rate_d(yield_total / weight_total, max_abs);
    if (!std::isfinite(rate)) rate = 0.0;
    double failure = std::min(std::max(0.0, 1.0 - rate), 1.0);
    return {rate, failure};
}

void finalize_stats(handle stats, const Limits& lim) {
    object items = list_from(steal(PyObject_CallMethodNoArgs(stats.ptr(), ID("values").ptr())));
    object zero_f = float_of(0.0);
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.ptr()); ++i) {
        object item = borrow(PyList_GET_ITEM(items.ptr(), i));
        object rate = zero_f;
        object wt = float_late(get(item, ID("weight_total"), zero_f), zero_f);
        if (cmp(wt, zero_f, Py_GT)) {
            object yt = float_late(get(item, ID("yield_total"), zero_f), zero_f);
            object mean = steal(PyNumber_TrueDivide(yt.ptr(), wt.ptr()));
            rate = safe_yield_rate_late_obj(mean, lim);
        }
        if (!std::isfinite(as_double(rate))) rate = zero_f;
        setitem(item, ID("yield_rate"), rate);
        setitem(item, ID("failure_rate"), float_of(std::min(std::max(0.0, 1.0 - as_double(rate)), 1.0)));
    }
}

// A Python int of a 128-bit sum.
static object int_of_i128(__int128 v) {
    if (v >= LLONG_MIN && v <= LLONG_MAX) return int_of((long long)v);
    bool negative = v < 0;
    unsigned __int128 m = negative ? -(unsigned __int128)v : (unsigned __int128)v;
    object hi = steal(PyLong_FromUnsignedLongLong((unsigned long long)(m >> 64)));
    object lo = steal(PyLong_FromUnsignedLongLong((unsigned long long)m));
    object shift = int_of(64);
    object r = steal(PyNumber_Or(steal(PyNumber_Lshift(hi.ptr(), shift.ptr())).ptr(), lo.ptr()));
    return negative ? steal(PyNumber_Negative(r.ptr())) : r;
}

// Per-kind accumulator: the index dict doubles as the set of names seen.
struct KindStats {
    object allowed;
    object index = new_dict();
    std::vector<object> names;
    struct Acc {
        double yield_total = 0.0, weight_total = 0.0;
        __int128 count = 0;  // a sum of int64 counts: no row count can carry it past 2**127
    };
    std::vector<Acc> acc;

    void add(handle name, double safe_rate, double weight, long long count, const Limits& lim) {
        if (!is_nonempty_str(name)) return;
        if (!is_none(allowed) && check_int(PySet_Contains(allowed.ptr(), name.ptr())) == 0) return;
        PyObject* found = PyDict_GetItemWithError(index.ptr(), name.ptr());
        std::size_t i;
        if (found) {
            i = PyLong_AsSize_t(found);
        } else {
            if (PyErr_Occurred()) throw_py();
            if ((long long)names.size() >= lim.max_unique_names) return;
            i = names.size();
            dict_set(index, name, int_of((long long)i));
            names.push_back(borrow(name.ptr()));
            acc.emplace_back();
        }
        acc[i].yield_total += safe_rate * weight;
        acc[i].weight_total += weight;
        acc[i].count += count;
    }
    object stats_dict(const Limits& lim) const {
        object d = new_dict();
        for (std::size_t i = 0; i < names.size(); ++i) {
            const Acc& a = acc[i];
            auto [rate, failure] = finalized_rates(a.weight_total, a.yield_total, lim.max_abs_yield_rate);
            object item = new_dict();
            dict_set(item, ID("yield_total"), float_of(a.yield_total));
            dict_set(item, ID("weight_total"), float_of(a.weight_total));
            dict_set(item, ID("evaluation_count"), int_of_i128(a.count));
            dict_set(item, ID("yield_rate"), float_of(rate));
            dict_set(item, ID("failure_rate"), float_of(failure));
            dict_set(d, names[i], item);
        }
        return d;
    }
    object yield_map(const Limits& lim) const {
        object d = new_dict();
        for (std::size_t i = 0; i < names.size(); ++i) {
            double rate = finalized_rates(acc[i].weight_total, acc[i].yield_total, lim.max_abs_yield_rate).first;
            dict_set(d, names[i], float_of(safe_yield_rate_d(rate, lim.max_abs_yield_rate)));
        }
        return d;
    }
};

// Only while stats_helpers_own(): the accumulation below stands for those helpers.
static long long collect(handle analytics, KindStats& fs, KindStats& ts, const Limits& lim) {
    long long rows_seen = 0;
    for_each_entry(analytics, lim, true, [&](Entry& e) {
        rows_seen += 1;
        long long count = clamped_count(e.evaluation_count, lim, true);
        double weight = count > 0 ? (double)count : 1.0;
        double safe = safe_yield_rate_d(e.yield_rate, lim.max_abs_yield_rate);
        if (e.single) {
            (e.single_is_feature ? ts : fs).add(e.single, safe, weight, count, lim);
            return;
        }
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(e.function_names.ptr()); ++i)
            fs.add(PyList_GET_ITEM(e.function_names.ptr(), i), safe, weight, count, lim);
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(e.feature_names.ptr()); ++i)
            ts.add(PyList_GET_ITEM(e.feature_names.ptr(), i), safe, weight, count, lim);
    });
    return rows_seen;
}

// The helpers analytics_stats calls, directly or through the row readers. While
// all of them are ours (looked at once per operation, as the limits are), the
// accumulation runs in C++; otherwise each step goes through the namespace.
static bool stats_helpers_own() {
    for (hooks::Id id : {hooks::allowed_name_set, hooks::analytics_entries, hooks::skip_analytics_name,
                         hooks::add_stat, hooks::finalize_stats, hooks::safe_yield_rate})
        if (!hooks::is_own(id)) return false;
    return RowHelpers::all_own();
}

static object allowed_name_set_late(handle names) {
    return via(hooks::allowed_name_set, {names}, [&] { return allowed_name_set(names); });
}

// analytics_stats step by step, each helper read from the namespace at its call.
static object analytics_stats_through_namespace(handle analytics, handle allowed_function_names,
                                                handle allowed_feature_names, const Limits& lim) {
    object rows_seen = int_of(0);
    object function_stats = new_dict(), feature_stats = new_dict();
    object function_seen = steal(PySet_New(nullptr)), feature_seen = steal(PySet_New(nullptr));
    object allowed_functions = allowed_name_set_late(allowed_function_names);
    object allowed_features = allowed_name_set_late(allowed_feature_names);
    object entries = via(hooks::analytics_entries, {analytics}, [&] { return analytics_entries_list(analytics); });
    auto credit = [&](handle names, handle allowed, handle seen, handle stats, handle yield_rate, handle count) {
        object it = steal(PyObject_GetIter(names.ptr()));
        while (PyObject* p = PyIter_Next(it.ptr())) {
            object name = steal(p);
            object skip = via(hooks::skip_analytics_name, {name, allowed, seen},
                              [&] { return bool_of(skip_analytics_name(name, allowed, seen, lim)); });
            if (truthy(skip)) continue;
            via(hooks::add_stat, {stats, name, yield_rate, count}, [&] {
                add_stat(stats, name, yield_rate, count, lim);
                return none();
            });
        }
        if (PyErr_Occurred()) throw_py();
    };
    object it = steal(PyObject_GetIter(entries.ptr()));
    while (PyObject* p = PyIter_Next(it.ptr())) {
        object entry = steal(p);
        std::vector<object> v = unpack(entry, 5);  // row_seen, function_names, feature_names, yield_rate, count
        rows_seen = steal(PyNumber_InPlaceAdd(rows_seen.ptr(), v[0].ptr()));
        credit(v[1], allowed_functions, function_seen, function_stats, v[3], v[4]);
        credit(v[2], allowed_features, feature_seen, feature_stats, v[3], v[4]);
    }
    if (PyErr_Occurred()) throw_py();
    for (handle stats : {handle(function_stats), handle(feature_stats)})
        via(hooks::finalize_stats, {stats}, [&] {
            finalize_stats(stats, lim);
            return none();
        });
    return tuple_of({rows_seen, function_stats, feature_stats});
}

object analytics_stats(handle analytics, handle allowed_function_names, handle allowed_feature_names) {
    Limits lim = Limits::read();
    if (!stats_helpers_own())
        return analytics_stats_through_namespace(analytics, allowed_function_names, allowed_feature_names, lim);
    KindStats fs, ts;
    fs.allowed = allowed_name_set(allowed_function_names);
    ts.allowed = allowed_name_set(allowed_feature_names);
    long long rows_seen = collect(analytics, fs, ts, lim);
    return tuple_of({int_of(rows_seen), fs.stats_dict(lim), ts.stats_dict(lim)});
}

std::pair<object, object> yield_maps(handle analytics, handle function_names, handle feature_names) {
    Limits lim = Limits::read();
    if (!hooks::is_own(hooks::analytics_stats) || !stats_helpers_own()) {
        object stats = via(hooks::analytics_stats, {analytics, function_names, feature_names},
                           [&] { return analytics_stats(analytics, function_names, feature_names); });
        std::vector<object> v = unpack(stats, 3);
        object zero_f = float_of(0.0);
        auto rates = [&](handle kind) {
            object out = new_dict();
            object items = list_from(steal(check(PyObject_CallMethodNoArgs(kind.ptr(), ID("items").ptr()))));
            for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.ptr()); ++i) {
                std::vector<object> kv = unpack(PyList_GET_ITEM(items.ptr(), i), 2);
                object value = get(kv[1], ID("yield_rate"), zero_f);
                setitem(out, kv[0], safe_yield_rate_late_obj(value, lim));
            }
            return out;
        };
        object function_map = rates(v[1]);
        return {function_map, rates(v[2])};
    }
    KindStats fs, ts;
    fs.allowed = allowed_name_set(function_names);
    ts.allowed = allowed_name_set(feature_names);
    collect(analytics, fs, ts, lim);
    return {fs.yield_map(lim), ts.yield_map(lim)};
}

// ---------------------------------------------------------------- weights

object normalized_weights(handle names, handle stats) {
    Py_ssize_t count = PyObject_Size(names.ptr());
    if (count < 0) throw_py();
    object out = new_dict();
    if (count == 0) return out;
    Limits lim = Limits::read();
    double cold = 1.0 / (double)count;
    object raw = new_dict();
    double total = 0.0;
    object seq = list_from(names);
    object zero_f = float_of(0.0);
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(seq.ptr()); ++i) {
        handle name = PyList_GET_ITEM(seq.ptr(), i);
        object empty = new_dict();
        object item = get(stats, name, empty);
        double rate = safe_yield_rate_late(get(item, ID("yield_rate"), zero_f), lim);
        double w = std::max(0.0, 1.0 + rate);
        setitem(raw, name, float_of(w));
        total += w;
    }
    bool uniform = total <= 0.0 || !std::isfinite(total);
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(seq.ptr()); ++i) {
        handle name = PyList_GET_ITEM(seq.ptr(), i);
        double w = uniform ? cold : PyFloat_AS_DOUBLE(getitem(raw, name).ptr()) / total;
        object entry = new_dict();
        dict_set(entry, ID("cold_weight"), float_of(cold));
        dict_set(entry, ID("warm_weight"), float_of(w));
        dict_set(entry, ID("warm_delta"), float_of(uniform ? 0.0 : w - cold));
        setitem(out, name, entry);
    }
    return out;
}

object weight_entry(handle normalized_weights, handle stats, handle name) {
    Limits lim = Limits::read();
    object e1 = new_dict(), e2 = new_dict();
    object item = get(stats, name, e1);
    object weights = get(normalized_weights, name, e2);
    object zero_f = float_of(0.0), one_f = float_of(1.0), zero = int_of(0);
    object entry = new_dict();
    object rate = get(item, ID("yield_rate"), zero_f);
    dict_set(entry, ID("yield_rate"), safe_yield_rate_late_obj(rate, lim));
    dict_set(entry, ID("failure_rate"), float_late(get(item, ID("failure_rate"), one_f), one_f));
    dict_set(entry, ID("evaluation_count"), py_int(get(item, ID("evaluation_count"), zero)));
    for (handle key : {ID("cold_weight"), ID("warm_weight"), ID("warm_delta")})
        dict_set(entry, key, float_late(get(weights, key, zero_f), zero_f));
    return entry;
}

static object weight_report(handle specs, handle normalized, handle stats, handle family, handle subfamily) {
    object report = new_dict();
    object empty = str_of("");
    object it = steal(PyObject_GetIter(specs.ptr()));
    while (PyObject* p = PyIter_Next(it.ptr())) {
        object spec = steal(p);
        object name = get(spec, ID("name"));
        object entry = via(hooks::weight_entry, {normalized, stats, name}, [&] { return weight_entry(normalized, stats, name); });
        setitem(entry, family, get(spec, family, empty));  // a replaced weight_entry may answer with any mapping
        setitem(entry, subfamily, get(spec, subfamily, empty));
        setitem(report, name, entry);
    }
    if (PyErr_Occurred()) throw_py();
    return report;
}

object function_weight_report(handle safe_rotations, handle normalized, handle stats) {
    return weight_report(safe_rotations, normalized, stats, ID("function_family"), ID("function_subfamily"));
}

object feature_weight_report(handle specs, handle normalized, handle stats) {
    return weight_report(specs, normalized, stats, ID("feature_family"), ID("feature_subfamily"));
}

}  // namespace tw::gen
