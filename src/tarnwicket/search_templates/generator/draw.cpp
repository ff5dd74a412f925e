// The draw: cumulative weights, the weighted choice and the expression builder,
// with random numbers from the host's process-wide `random` module.
#include "generator/draw.hpp"

#include <algorithm>
#include <bit>

namespace tw::gen {

// ---------------------------------------------------------------- random module

namespace rnd {

// The host's functions, read from the module at each use; the C++ draws stand
// in for randint and choice only while they are the module's own.
static const LateAttr k_random("random", "random");
static const LateAttr k_randint("random", "randint");
static const LateAttr k_choice("random", "choice");
static const LateAttr k_inst("random", "_inst");  // the Random instance behind them

void init() {
    for (const LateAttr* a : {&k_random, &k_randint, &k_choice, &k_inst}) a->capture();
}

object random_module() { return k_random.module(); }

double random01(PyObject* fn) {
    object r = steal(PyObject_Vectorcall(fn, nullptr, 0, nullptr));
    if (PyFloat_CheckExact(r.ptr())) return PyFloat_AS_DOUBLE(r.ptr());
    return as_double(r);
}

double random01() {
    object fn = k_random.current();  // held: another thread may rebind random.random while it runs
    return random01(fn.ptr());
}

PyObject* own_random() {
    if (k_random.replaced() || k_choice.replaced()) return nullptr;
    return k_random.original().ptr();
}

// Random._randbelow_with_getrandbits(n) for 0 < n < 2**63.
static unsigned long long randbelow(unsigned long long n) {
    int k = std::bit_width(n);
    object ok = int_of(k);
    PyObject* argv[2] = {k_inst.original().ptr(), ok.ptr()};
    for (;;) {
        object r = steal(PyObject_VectorcallMethod(ID("getrandbits").ptr(), argv, 2 | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
        unsigned long long v = PyLong_AsUnsignedLongLong(r.ptr());
        if (v == (unsigned long long)-1 && PyErr_Occurred()) throw_py();
        if (v < n) return v;
    }
}

long long randint_ll(long long a, long long b) {
    if (!k_randint.replaced() && b >= a && b - a < (1LL << 62)) return a + (long long)randbelow((unsigned long long)(b - a + 1));
    object oa = int_of(a), ob = int_of(b);
    object r = randint(oa, ob);
    return clamp_ll(steal(PyNumber_Index(r.ptr())));
}

object randint(handle a, handle b) {
    return call(k_randint.current(), {a, b});
}

// random.choice(seq); `index` receives the drawn position when known, else -1.
object choice_at(handle seq, Py_ssize_t& index) {
    index = -1;
    if (PyList_CheckExact(seq.ptr()) && !k_choice.replaced()) {
        Py_ssize_t n = PyList_GET_SIZE(seq.ptr());
        if (n == 0) raise(PyExc_IndexError, "Cannot choose from an empty sequence");
        Py_ssize_t i = (Py_ssize_t)randbelow((unsigned long long)n);
        if (i < PyList_GET_SIZE(seq.ptr())) {
            index = i;
            return borrow(PyList_GET_ITEM(seq.ptr(), i));
        }
        return getitem(seq, int_of(i));
    }
    return call(k_choice.current(), {seq});
}

object choice(handle seq) {
    Py_ssize_t ignored;
    return choice_at(seq, ignored);
}

}  // namespace rnd

// ---------------------------------------------------------------- cumulative weights

// Walks `names` as the host iterates it, so that a value's __float__ that
// changes the names is seen as a `for` loop would see it.
// _random_weighted_is_finite_number(total)
static bool finite_total(double total) {
    if (object f = hooks::replaced(hooks::is_finite_number)) return truthy(call(f, {float_of(total)}));
    return std::isfinite(total);
}

object cum_weights(handle names, handle yield_map) {
    Limits lim = Limits::read();
    object out = new_list();
    double total = 0.0;
    object zero_f = float_of(0.0);
    bool exact = PyDict_CheckExact(yield_map.ptr());
    object it = steal(PyObject_GetIter(names.ptr()));
    while (PyObject* p = PyIter_Next(it.ptr())) {
        object name = steal(p);
        double rate;
        if (exact) {
            // held: the value's __float__ may drop it from the map
            PyObject* v = PyDict_GetItemWithError(yield_map.ptr(), name.ptr());
            if (!v && PyErr_Occurred()) throw_py();
            object value = v ? borrow(v) : zero_f;
            rate = safe_yield_rate_late(value, lim);
        } else {
            rate = safe_yield_rate_late(dict_get(yield_map, name, zero_f), lim);
        }
        total += std::max(0.0, 1.0 + rate);
        list_append(out, float_of(total));
    }
    if (PyErr_Occurred()) throw_py();
    if (total > 0.0 && finite_total(total)) return out;
    // the uniform fallback is as long as the names are now
    Py_ssize_t n = PyObject_Size(names.ptr());
    if (n < 0) throw_py();
    object uniform = new_list(n);
    for (Py_ssize_t i = 0; i < n; ++i) PyList_SET_ITEM(uniform.ptr(), i, float_of((double)(i + 1)).release().ptr());
    return uniform;
}

// ---------------------------------------------------------------- weighted choice

static bool lt(handle a, handle b) { return check_int(PyObject_RichCompareBool(a.ptr(), b.ptr(), Py_LT)) == 1; }

// bisect.bisect_left(seq, x) with the host's comparisons.
static Py_ssize_t bisect_left_obj(handle seq, handle x) {
    Py_ssize_t lo = 0, hi = PySequence_Size(seq.ptr());
    if (hi < 0) throw_py();
    while (lo < hi) {
        Py_ssize_t mid = ((size_t)lo + hi) / 2;
        object item = steal(PySequence_GetItem(seq.ptr(), mid));
        if (lt(item, x)) lo = mid + 1;
        else hi = mid;
    }
    return lo;
}

// The same over a list, reading exact floats directly. A comparison may shrink
// the list: a probe past its end raises IndexError, as bisect_left does.
static Py_ssize_t bisect_left_list(PyObject* list, double x, handle x_obj_or_null) {
    Py_ssize_t lo = 0, hi = PyList_GET_SIZE(list);
    while (lo < hi) {
        Py_ssize_t mid = ((size_t)lo + hi) / 2;
        if (mid >= PyList_GET_SIZE(list)) raise(PyExc_IndexError, "list index out of range");
        PyObject* item = PyList_GET_ITEM(list, mid);
        bool less;
        if (PyFloat_CheckExact(item)) {
            less = PyFloat_AS_DOUBLE(item) < x;
        } else {
            object hold = borrow(item);
            object xo = x_obj_or_null ? borrow(x_obj_or_null.ptr()) : float_of(x);
            less = lt(hold, xo);
        }
        if (less) lo = mid + 1;
        else hi = mid;
    }
    return lo;
}

object weighted_choice_at(handle items, handle cum, Py_ssize_t& index) {
    index = -1;
    double total;
    object total_obj;
    if (PyList_CheckExact(cum.ptr()) && PyList_GET_SIZE(cum.ptr()) > 0 &&
        PyFloat_CheckExact(PyList_GET_ITEM(cum.ptr(), PyList_GET_SIZE(cum.ptr()) - 1))) {
        total = PyFloat_AS_DOUBLE(PyList_GET_ITEM(cum.ptr(), PyList_GET_SIZE(cum.ptr()) - 1));
        if (total <= 0.0 || !std::isfinite(total)) return rnd::choice_at(items, index);
    } else {
        object last = int_of(-1);
        total_obj = getitem(cum, last);
        object zero_f = float_of(0.0);
        if (check_int(PyObject_RichCompareBool(total_obj.ptr(), zero_f.ptr(), Py_LE)) == 1)
            return rnd::choice_at(items, index);
        total = PyFloat_AsDouble(total_obj.ptr());
        if (total == -1.0 && PyErr_Occurred()) throw_py();
        if (!std::isfinite(total)) return rnd::choice_at(items, index);
    }
    double u = rnd::random01();
    Py_ssize_t i;
    if (!total_obj || PyFloat_CheckExact(total_obj.ptr())) {
        double r = u * total;
        i = PyList_CheckExact(cum.ptr()) ? bisect_left_list(cum.ptr(), r, handle()) : bisect_left_obj(cum, float_of(r));
    } else {
        object uo = float_of(u);
        object r = steal(PyNumber_Multiply(uo.ptr(), total_obj.ptr()));
        i = bisect_left_obj(cum, r);
    }
    if (PyList_CheckExact(items.ptr())) {
        Py_ssize_t n = PyList_GET_SIZE(items.ptr());
        if (n > 0) {
            index = i < n ? i : n - 1;
            return borrow(PyList_GET_ITEM(items.ptr(), index));
        }
        return getitem(items, int_of(-1));
    }
    Py_ssize_t n = PyObject_Size(items.ptr());
    if (n < 0) throw_py();
    return i < n ? getitem(items, int_of(i)) : getitem(items, int_of(-1));
}

object weighted_choice(handle items, handle cum) {
    Py_ssize_t ignored;
    return weighted_choice_at(items, cum, ignored);
}

// ---------------------------------------------------------------- expression builder

namespace {


inline object new_node2(PyObject* type_value, PyObject* node_value) {
    PyObject* d = new_presized_dict_raw(2);
    if (!d) throw_py();
    object o = steal(d);
    if (PyDict_SetItem(d, ID("type").ptr(), type_value) < 0 || PyDict_SetItem(d, ID("node").ptr(), node_value) < 0)
        throw_py();
    return o;
}


}  // namespace

Depth Depth::of(handle o) {
    Depth d;
    if (PyFloat_CheckExact(o.ptr())) {
        d.is_float = true;
        d.f = PyFloat_AS_DOUBLE(o.ptr());
        return d;
    }
    if (PyLong_CheckExact(o.ptr())) {
        int overflow = 0;
        d.i = PyLong_AsLongLongAndOverflow(o.ptr(), &overflow);
        if (!overflow) return d;  // an int past int64 recurses until RecursionError, as generic
    }
    d.other = borrow(o.ptr());
    return d;
}

bool Depth::le1() const {
    if (other) {
        object one = int_of(1);
        return cmp(other, one, Py_LE);
    }
    return is_float ? f <= 1.0 : i <= 1;
}

Depth Depth::minus1() const {
    Depth d = *this;
    if (other) {
        object one = int_of(1);
        d.other = steal(PyNumber_Subtract(other.ptr(), one.ptr()));
    } else if (is_float) {
        d.f -= 1.0;
    } else {
        d.i -= 1;  // only called above 1
    }
    return d;
}

object Depth::obj() const {
    if (other) return other;
    return is_float ? float_of(f) : int_of(i);
}

object Builder::draw(handle items, handle cum, Py_ssize_t& index) const {
    object fn = hooks::replaced(hooks::weighted_choice);
    if (!fn) return weighted_choice_at(items, cum, index);
    index = -1;
    if (lists_shared) *lists_shared = true;
    return call(fn, {items, cum});
}

object Builder::child(Depth d) const {
    object fn = hooks::replaced(hooks::build_expression);
    if (!fn) return build(d);
    object depth = d.obj();
    if (lists_shared) *lists_shared = true;
    return call(fn, {func_names, func_specs, func_weights, feat_names, feat_weights, depth});
}

object Builder::build(Depth d) const {
    RecursionGuard guard(" while building a random expression");
    Py_ssize_t index;
    if (d.le1()) {
        object feat = draw(feat_names, feat_weights, index);
        return new_node2(ID("feature").ptr(), feat.ptr());
    }
    object func = draw(func_names, func_weights, index);
    return rotation_node(func, index, d);
}

object Builder::rotation_node(handle func, Py_ssize_t index, Depth d) const {
    // target_depth - 1 is taken for each data child, as the host would
    object children;
    if (mirror && index >= 0 && (std::size_t)index < mirror->size() && (*mirror)[index].name.ptr() == func.ptr()) {
        const FuncMirror& m = (*mirror)[index];
        Py_ssize_t n_cfg = (Py_ssize_t)m.configs.size();
        children = steal(PyList_New(m.n_data + n_cfg));
        for (Py_ssize_t k = 0; k < m.n_data; ++k) PyList_SET_ITEM(children.ptr(), k, child(d.minus1()).release().ptr());
        for (Py_ssize_t k = 0; k < n_cfg; ++k) {
            PyObject* c = PyDict_Copy(m.configs[k].ptr());
            if (!c) throw_py();
            PyList_SET_ITEM(children.ptr(), m.n_data + k, c);
        }
    } else {
        object spec = getitem(func_specs, func);
        children = new_list();
        object data_params = getitem(spec, ID("data_params"));
        object it = steal(PyObject_GetIter(data_params.ptr()));
        while (PyObject* p = PyIter_Next(it.ptr())) {
            Py_DECREF(p);
            list_append(children, child(d.minus1()));
        }
        if (PyErr_Occurred()) throw_py();
        object configs = getitem(spec, ID("config_children"));
        object cit = steal(PyObject_GetIter(configs.ptr()));
        while (PyObject* p = PyIter_Next(cit.ptr())) {
            object c = steal(p);
            list_append(children, dict_copy(c));
        }
        if (PyErr_Occurred()) throw_py();
    }
    PyObject* node = new_presized_dict_raw(3);
    if (!node) throw_py();
    object out = steal(node);
    if (PyDict_SetItem(node, ID("type").ptr(), ID("rotation").ptr()) < 0 ||
        PyDict_SetItem(node, ID("node").ptr(), func.ptr()) < 0 ||
        PyDict_SetItem(node, ID("children").ptr(), children.ptr()) < 0)
        throw_py();
    return out;
}

object build_expression(handle func_names, handle func_specs, handle func_weights, handle feat_names,
                        handle feat_weights, handle target_depth) {
    Builder b{func_names, func_specs, func_weights, feat_names, feat_weights, nullptr};
    return b.build(Depth::of(target_depth));
}

namespace {

// First index whose value is >= x (bisect_left) over a non-empty sorted
// array; branch-free, since random probes defeat branch prediction.
inline Py_ssize_t lower_bound_index(const double* a, std::size_t n, double x) {
    const double* base = a;
    while (n > 1) {
        std::size_t half = n / 2;
        base = (base[half] < x) ? base + half : base;
        n -= half;
    }
    return (base - a) + (*base < x);
}

}  // namespace

// The bucket of a value is monotone in the value, so every entry at or above r
// lies in r's bucket or later, and every entry in a later bucket is above r:
// bisect_left(cum, r) lies in [start[b], start[b + 1]] for b = bucket(r).
bool CumIndex::assign(handle list) {
    cum.clear();
    start.clear();
    if (!PyList_CheckExact(list.ptr())) return false;
    Py_ssize_t n = PyList_GET_SIZE(list.ptr());
    if (n >= (Py_ssize_t)UINT32_MAX) return false;
    cum.reserve(n);
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* v = PyList_GET_ITEM(list.ptr(), i);
        if (!PyFloat_CheckExact(v)) return false;
        cum.push_back(PyFloat_AS_DOUBLE(v));
        if (i > 0 && !(cum[i - 1] <= cum[i])) return false;  // unsorted or NaN: plain search only
    }
    double total = n ? cum.back() : 0.0;
    if (!(total > 0.0) || !std::isfinite(total)) return true;
    std::size_t buckets = (std::size_t)n;
    scale = (double)buckets / total;
    if (!std::isfinite(scale) || !(cum.front() >= 0.0)) return true;
    start.assign(buckets + 1, (uint32_t)n);
    std::size_t b = 0;
    for (Py_ssize_t i = 0; i < n; ++i) {
        std::size_t bi = bucket(cum[i]);
        while (b <= bi) start[b++] = (uint32_t)i;
    }
    return true;
}

Py_ssize_t CumIndex::bisect_left(double r) const {
    const double* a = cum.data();
    std::size_t lo = 0, hi = cum.size();
    if (!start.empty() && r >= 0.0) {
        std::size_t b = bucket(r);
        lo = start[b];
        hi = start[b + 1];
    }
    if (lo == hi) return (Py_ssize_t)lo;
    return (Py_ssize_t)lo + lower_bound_index(a + lo, hi - lo, r);
}

namespace {

// One weighted draw over `items`; returns a new reference and the index drawn
// (-1 when a replaced random.choice picked it).
PyObject* fast_draw(PyObject* items, PyObject* cum_list, const CumIndex* cum, Py_ssize_t& index, PyObject*& quiet) {
    index = -1;
    try {
        if (!cum) {
            quiet = nullptr;  // the plain draw may call random's Python code
            return weighted_choice_at(items, cum_list, index).release().ptr();
        }
        if (cum->cum.empty()) {
            PyErr_SetString(PyExc_IndexError, "list index out of range");
            return nullptr;
        }
        double total = cum->cum.back();
        if (total <= 0.0 || !std::isfinite(total)) {
            quiet = nullptr;
            return rnd::choice_at(items, index).release().ptr();
        }
        double r = (quiet ? rnd::random01(quiet) : rnd::random01()) * total;
        Py_ssize_t i = cum->bisect_left(r);
        Py_ssize_t n = PyList_GET_SIZE(items);
        if (n == 0) {
            PyErr_SetString(PyExc_IndexError, "list index out of range");
            return nullptr;
        }
        index = i < n ? i : n - 1;
        PyObject* item = PyList_GET_ITEM(items, index);
        Py_INCREF(item);
        return item;
    } catch (py::error_already_set& e) {
        e.restore();
        return nullptr;
    }
}

PyObject* node_of(PyObject* type_value, PyObject* node_value) {
    PyObject* d = PyDict_New();
    if (!d) return nullptr;
    if (PyDict_SetItem(d, ID("type").ptr(), type_value) < 0 || PyDict_SetItem(d, ID("node").ptr(), node_value) < 0) {
        Py_DECREF(d);
        return nullptr;
    }
    return d;
}

}  // namespace

PyObject* FastTables::build(long long depth) const {
    const Builder& g = *generic;
    try {
        // While quiet, no Python code has run since the hooks were checked.
        bool own = quiet || (hooks::is_own(hooks::weighted_choice) && hooks::is_own(hooks::build_expression));
        if (!own || !g.mirror || depth > 256) {
            quiet = nullptr;
            return g.build(Depth::of_ll(depth)).release().ptr();
        }
    } catch (py::error_already_set& e) {
        e.restore();
        return nullptr;
    }
    Py_ssize_t index;
    if (depth <= 1) {
        PyObject* feat = fast_draw(g.feat_names.ptr(), g.feat_weights.ptr(), feat_cum, index, quiet);
        if (!feat) return nullptr;
        PyObject* leaf = node_of(ID("feature").ptr(), feat);
        Py_DECREF(feat);
        return leaf;
    }
    PyObject* func = fast_draw(g.func_names.ptr(), g.func_weights.ptr(), func_cum, index, quiet);
    if (!func) return nullptr;
    if (index < 0 || (std::size_t)index >= g.mirror->size() || (*g.mirror)[index].name.ptr() != func) {
        // drawn by a replaced random.choice, or from a name list changed since
        // set-up: look its spec up by name
        object hold = steal(func);
        quiet = nullptr;
        try {
            return g.rotation_node(hold, -1, Depth::of_ll(depth)).release().ptr();
        } catch (py::error_already_set& e) {
            e.restore();
            return nullptr;
        }
    }
    const FuncMirror& m = (*g.mirror)[index];
    Py_ssize_t n_cfg = (Py_ssize_t)m.configs.size();
    PyObject* children = PyList_New(m.n_data + n_cfg);
    if (!children) {
        Py_DECREF(func);
        return nullptr;
    }
    for (Py_ssize_t k = 0; k < m.n_data; ++k) {
        PyObject* c = build(depth - 1);
        if (!c) {
            Py_DECREF(children);
            Py_DECREF(func);
            return nullptr;
        }
        PyList_SET_ITEM(children, k, c);
    }
    for (Py_ssize_t k = 0; k < n_cfg; ++k) {
        PyObject* c = PyDict_Copy(m.configs[k].ptr());
        if (!c) {
            Py_DECREF(children);
            Py_DECREF(func);
            return nullptr;
        }
        PyList_SET_ITEM(children, m.n_data + k, c);
    }
    PyObject* node = node_of(ID("rotation").ptr(), func);
    Py_DECREF(func);
    if (node && PyDict_SetItem(node, ID("children").ptr(), children) < 0) Py_CLEAR(node);
    Py_DECREF(children);
    return node;
}

bool build_mirror(handle func_names, handle func_specs, std::vector<FuncMirror>& out) {
    out.clear();
    if (!PyList_CheckExact(func_names.ptr()) || !PyDict_CheckExact(func_specs.ptr())) return false;
    Py_ssize_t n = PyList_GET_SIZE(func_names.ptr());
    out.reserve(n);
    // Lookups may call a key's __eq__, which may change the specs: every value
    // read is held before the next lookup, and the list is re-measured.
    auto lookup = [](handle d, handle key, object& out) {
        PyObject* v = PyDict_GetItemWithError(d.ptr(), key.ptr());
        if (!v && PyErr_Occurred()) throw_py();
        out = v ? borrow(v) : object();
        return (bool)out;
    };
    for (Py_ssize_t i = 0; i < n && i < PyList_GET_SIZE(func_names.ptr()); ++i) {
        FuncMirror m;
        m.name = borrow(PyList_GET_ITEM(func_names.ptr(), i));
        object spec, data, cfg;
        if (!lookup(func_specs, m.name, spec) || !PyDict_CheckExact(spec.ptr())) return false;
        if (!lookup(spec, ID("data_params"), data) || !lookup(spec, ID("config_children"), cfg)) return false;
        if (!PyList_CheckExact(data.ptr()) || !PyList_CheckExact(cfg.ptr())) return false;
        m.n_data = PyList_GET_SIZE(data.ptr());
        for (Py_ssize_t k = 0; k < PyList_GET_SIZE(cfg.ptr()); ++k) {
            PyObject* c = PyList_GET_ITEM(cfg.ptr(), k);
            if (!PyDict_Check(c)) return false;
            m.configs.push_back(borrow(c));
        }
        out.push_back(std::move(m));
    }
    return out.size() == (std::size_t)PyList_GET_SIZE(func_names.ptr());
}

}  // namespace tw::gen
