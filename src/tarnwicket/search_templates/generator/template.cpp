// `random_weighted`: the built-in template. Calling it returns an iterator that
// behaves as a generator: set-up on the first `next`, then one graph per pass.
#include "generator/draw.hpp"
#include "vocabulary/normalize.hpp"

#include <optional>

namespace tw::gen {

namespace {

struct GenState {
    object ctx;
    enum Phase { fresh, looping, done } phase = fresh;
    bool running = false;
    object func_names, func_specs, feat_names, func_weights, feat_weights;
    object effective_max_depth;
    long long eff_ll = 0;
    bool eff_small = false;
    object cached_analytics;  // the snapshot the weights were computed from
    std::vector<FuncMirror> mirror;
    bool mirror_ok = false;
    // Contiguous copies of the cumulative weights. Only lists this module
    // computed are mirrored: a list from a replaced `_random_weighted_cum_weights`
    // may be changed later by its maker. Our own lists reach Python code only
    // through a replaced `_weighted_choice` or `_build_random_signal_expression`;
    // once one was handed them (`lists_shared`), whoever holds them may change
    // them, so they are copied again before every draw until the weights are
    // computed anew. (A host that digs them out of the collector's object list
    // and changes them in place draws from the weights as they were.)
    CumIndex func_cum, feat_cum;
    bool func_cum_ok = false, feat_cum_ok = false;
    bool func_cum_own = false, feat_cum_own = false;
    bool lists_shared = false;

    void mirror_cum() {
        func_cum_ok = func_cum_own && func_cum.assign(func_weights);
        feat_cum_ok = feat_cum_own && feat_cum.assign(feat_weights);
    }

    bool setup();
    object pass();
    int traverse(visitproc visit, void* arg) {
        for (object* o : {&ctx, &func_names, &func_specs, &feat_names, &func_weights, &feat_weights,
                          &effective_max_depth, &cached_analytics})
            Py_VISIT(o->ptr());
        for (auto& m : mirror) {
            Py_VISIT(m.name.ptr());
            for (auto& c : m.configs) Py_VISIT(c.ptr());
        }
        return 0;
    }
    void clear() {
        // finished first: a finaliser run by a release below finds nothing to resume
        phase = done;
        mirror.clear();
        func_cum = CumIndex();
        feat_cum = CumIndex();
        func_cum_ok = feat_cum_ok = false;
        mirror_ok = false;
        for (object* o : {&ctx, &func_names, &func_specs, &feat_names, &func_weights, &feat_weights,
                          &effective_max_depth, &cached_analytics})
            *o = object();
    }
};

bool lt(handle a, handle b) { return check_int(PyObject_RichCompareBool(a.ptr(), b.ptr(), Py_LT)) == 1; }

bool GenState::setup() {
    object raw_vocab = get_attr(ctx, ID("vocabulary"));
    object vocab = via(hooks::normalize, {raw_vocab}, [&] { return vocab::normalize(raw_vocab); });
    object raw_depth = get_attr(ctx, ID("max_depth"));
    PyObject* md = PyNumber_Long(raw_depth.ptr());
    if (!md) {
        if (!(PyErr_ExceptionMatches(PyExc_TypeError) || PyErr_ExceptionMatches(PyExc_ValueError) ||
              PyErr_ExceptionMatches(PyExc_OverflowError)))
            throw_py();
        PyErr_Clear();
        log_info("random_weighted disabled: invalid max_depth %r", {raw_depth});
        return false;
    }
    object max_depth = steal(md);
    object two = int_of(2);
    if (lt(max_depth, two)) {
        log_info("random_weighted disabled: max_depth %r cannot produce a rotation root", {max_depth});
        return false;
    }
    object empty1 = new_list(), empty2 = new_list();
    object functions = dict_get(vocab, ID("functions"), empty1);
    object features = dict_get(vocab, ID("features"), empty2);

    object wl = via(hooks::window_limit, {ctx, max_depth}, [&] { return window_limit(ctx, max_depth); });
    object nl = via(hooks::node_limit, {ctx}, [&] { return node_limit(ctx); });
    object safe = via(hooks::safe_rotations, {functions, wl, nl}, [&] { return safe_rotations(functions, wl, nl); });
    object feats = via(hooks::feature_names, {features}, [&] { return feature_names(features); });
    safe = via(hooks::within_node_budget, {safe, nl}, [&] { return rotations_within_node_budget(safe, nl); });
    object eff = via(hooks::max_depth_within_node_budget, {safe, max_depth, nl},
                     [&] { return max_depth_within_node_budget(safe, max_depth, nl); });

    bool no_rotations = !truthy(safe), no_features = !truthy(feats);
    if (no_rotations || no_features) {
        if (no_rotations) log_info("random_weighted disabled: no SIGNAL-safe rotation functions available");
        if (no_features) log_info("random_weighted disabled: no valid features available");
        return false;
    }
    if (lt(eff, two)) {
        log_info("random_weighted disabled: node budget %r cannot produce a rotation root", {nl});
        return false;
    }
    if (lt(eff, max_depth))
        log_info("random_weighted capped max_depth from %r to %r to stay within node budget %r", {max_depth, eff, nl});

    func_names = new_list();
    func_specs = new_dict();
    object it = steal(PyObject_GetIter(safe.ptr()));
    while (PyObject* p = PyIter_Next(it.ptr())) {
        object spec = steal(p);
        object name = getitem(spec, ID("name"));
        list_append(func_names, name);
        setitem(func_specs, name, spec);
    }
    if (PyErr_Occurred()) throw_py();
    feat_names = feats;
    effective_max_depth = eff;
    if (PyLong_CheckExact(eff.ptr())) {
        int overflow = 0;
        eff_ll = PyLong_AsLongLongAndOverflow(eff.ptr(), &overflow);
        eff_small = !overflow && eff_ll < (1LL << 40);
    }
    mirror_ok = build_mirror(func_names, func_specs, mirror);
    return true;
}

object GenState::pass() {
    object depth;
    long long depth_ll = 0;
    if (eff_small) {
        depth_ll = rnd::randint_ll(2, eff_ll);
    } else {
        object two = int_of(2);
        depth = rnd::randint(two, effective_max_depth);
    }
    object analytics = get_attr(ctx, ID("analytics"));
    if (!cached_analytics || analytics.ptr() != cached_analytics.ptr()) {
        cached_analytics = analytics;
        object maps = via(hooks::yield_maps, {analytics, func_names, feat_names}, [&] {
            auto [f, t] = yield_maps(analytics, func_names, feat_names);
            return tuple_of({f, t});
        });
        auto pair = unpack(maps, 2);
        func_cum_own = !hooks::replaced(hooks::cum_weights);
        func_weights = via(hooks::cum_weights, {func_names, pair[0]}, [&] { return cum_weights(func_names, pair[0]); });
        feat_cum_own = !hooks::replaced(hooks::cum_weights);
        feat_weights = via(hooks::cum_weights, {feat_names, pair[1]}, [&] { return cum_weights(feat_names, pair[1]); });
        mirror_cum();
        lists_shared = false;
    }
    if (hooks::is_own(hooks::build_expression)) {
        Builder b{func_names, func_specs, func_weights, feat_names, feat_weights, mirror_ok ? &mirror : nullptr,
                  &lists_shared};
        if (depth) return b.build(Depth::of(depth));
        if (lists_shared) mirror_cum();
        bool lists = PyList_CheckExact(func_names.ptr()) && PyList_CheckExact(feat_names.ptr());
        if (!lists) return b.build(Depth::of_ll(depth_ll));
        FastTables fast{&b, func_cum_ok ? &func_cum : nullptr, feat_cum_ok ? &feat_cum : nullptr};
        std::optional<CollectorPause> pause;
        if (hooks::is_own(hooks::weighted_choice)) {
            if (PyObject* fn = rnd::own_random()) {
                pause.emplace();
                fast.quiet = fn;
            }
        }
        PyObject* graph = fast.build(depth_ll);
        if (!graph) throw_py();
        return steal(graph);
    }
    if (!depth) depth = int_of(depth_ll);
    lists_shared = true;
    object fn = hooks::late(hooks::build_expression).current();
    return call(fn, {func_names, func_specs, func_weights, feat_names, feat_weights, depth});
}

// ---------------------------------------------------------------- the iterator type

struct GenObject {
    PyObject_HEAD
    GenState* st;
};

PyTypeObject* g_type = nullptr;

GenState& state(PyObject* self) { return *reinterpret_cast<GenObject*>(self)->st; }

// One step: the next graph, or null with no error set when finished.
PyObject* step(PyObject* self) {
    GenState& s = state(self);
    if (s.running) {
        PyErr_SetString(PyExc_ValueError, "generator already executing");
        return nullptr;
    }
    if (s.phase == GenState::done) return nullptr;
    s.running = true;
    PyObject* result = nullptr;
    bool stepped = detail::returns_to_host([&] {
        if (s.phase == GenState::fresh) {
            s.phase = GenState::looping;
            if (!s.setup()) s.phase = GenState::done;
        }
        if (s.phase == GenState::looping) result = s.pass().release().ptr();
    });
    if (!stepped) s.phase = GenState::done;
    s.running = false;
    return result;
}

PyObject* gen_iternext(PyObject* self) { return step(self); }

PyObject* gen_send(PyObject* self, PyObject* value) {
    GenState& s = state(self);
    if (s.phase == GenState::fresh && value != Py_None && !s.running) {
        PyErr_SetString(PyExc_TypeError, "can't send non-None value to a just-started generator");
        return nullptr;
    }
    PyObject* r = step(self);
    if (!r && !PyErr_Occurred()) PyErr_SetNone(PyExc_StopIteration);
    return r;
}

PyObject* gen_close(PyObject* self, PyObject*) {
    GenState& s = state(self);
    if (s.running) {
        PyErr_SetString(PyExc_ValueError, "generator already executing");
        return nullptr;
    }
    s.phase = GenState::done;
    Py_RETURN_NONE;
}

// The generator never catches what is thrown into it: it finishes and the
// exception comes back out, as from a generator suspended at its yield.
PyObject* gen_throw(PyObject* self, PyObject* args) {
    PyObject *typ, *val = Py_None, *tb = Py_None;
    if (!PyArg_UnpackTuple(args, "throw", 1, 3, &typ, &val, &tb)) return nullptr;
    GenState& s = state(self);
    if (s.running) {
        PyErr_SetString(PyExc_ValueError, "generator already executing");
        return nullptr;
    }
    if (tb != Py_None && !PyTraceBack_Check(tb)) {
        PyErr_SetString(PyExc_TypeError, "throw() third argument must be a traceback object");
        return nullptr;
    }
    s.phase = GenState::done;
    if (PyExceptionClass_Check(typ)) {
        PyErr_SetObject(typ, val);
        PyObject *t, *v, *b;
        PyErr_Fetch(&t, &v, &b);
        PyErr_NormalizeException(&t, &v, &b);
        if (tb != Py_None) {
            Py_XDECREF(b);
            Py_INCREF(tb);
            b = tb;
            PyException_SetTraceback(v, tb);
        }
        PyErr_Restore(t, v, b);
        return nullptr;
    }
    if (PyExceptionInstance_Check(typ)) {
        if (val != Py_None) {
            PyErr_SetString(PyExc_TypeError, "instance exception may not have a separate value");
            return nullptr;
        }
        PyObject* t = reinterpret_cast<PyObject*>(Py_TYPE(typ));
        Py_INCREF(t);
        Py_INCREF(typ);
        PyObject* b = nullptr;
        if (tb != Py_None) {
            Py_INCREF(tb);
            b = tb;
            PyException_SetTraceback(typ, tb);
        }
        PyErr_Restore(t, typ, b);
        return nullptr;
    }
    PyErr_Format(PyExc_TypeError, "exceptions must be classes or instances deriving from BaseException, not %s",
                 Py_TYPE(typ)->tp_name);
    return nullptr;
}

int gen_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    GenObject* g = reinterpret_cast<GenObject*>(self);
    return g->st ? g->st->traverse(visit, arg) : 0;
}

int gen_clear(PyObject* self) {
    GenObject* g = reinterpret_cast<GenObject*>(self);
    if (g->st) g->st->clear();
    return 0;
}

void gen_dealloc(PyObject* self) {
    PyTypeObject* tp = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    GenObject* g = reinterpret_cast<GenObject*>(self);
    delete g->st;
    g->st = nullptr;
    tp->tp_free(self);
    Py_DECREF(tp);
}

PyMethodDef gen_methods[] = {
    {"send", (PyCFunction)gen_send, METH_O, "send(value) -> the next graph; the value is ignored."},
    {"close", (PyCFunction)gen_close, METH_NOARGS, "close() -> None; finishes the generator."},
    {"throw", (PyCFunction)gen_throw, METH_VARARGS, "throw(typ[, val[, tb]]) -> raises it; finishes the generator."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

void init_generator_type() {
    static PyType_Slot slots[] = {
        {Py_tp_dealloc, (void*)gen_dealloc},
        {Py_tp_traverse, (void*)gen_traverse},
        {Py_tp_clear, (void*)gen_clear},
        {Py_tp_iter, (void*)PyObject_SelfIter},
        {Py_tp_iternext, (void*)gen_iternext},
        {Py_tp_methods, (void*)gen_methods},
        {Py_tp_doc, (void*)"Graphs drawn by random_weighted; iterate it as a generator."},
        {0, nullptr},
    };
    // Made only by random_weighted(ctx): an instance from the type itself would have no state.
    static PyType_Spec spec = {"tarnwicket.search_templates.random_weighted_generator", sizeof(GenObject), 0,
                               Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_DISALLOW_INSTANTIATION, slots};
    g_type = reinterpret_cast<PyTypeObject*>(check(PyType_FromSpec(&spec)));
}

object random_weighted(handle ctx) {
    PyObject* self = PyType_GenericAlloc(g_type, 0);
    if (!self) throw_py();
    object o = steal(self);
    GenObject* g = reinterpret_cast<GenObject*>(self);
    g->st = new GenState();
    g->st->ctx = borrow(ctx.ptr());
    return o;
}

}  // namespace tw::gen
