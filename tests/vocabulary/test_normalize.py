"""Vocabulary normalisation and the entry contract, on ordinary entries and against hostile input."""

import pytest
from hypothesis import given
from hypothesis import strategies as hs

import tarnwicket.search_templates as st

from fakes import hostile_data as hd


def rotation(name="r", **extra):
    entry = {"name": name, "function_type": "rotation", "function_family": "ts", "function_subfamily": "mean",
             "param_schema": {"x": "data"}}
    entry.update(extra)
    return entry


def feature(name="close", **extra):
    entry = {"name": name, "function_type": "feature", "feature_family": "price", "feature_subfamily": "raw",
             "rotation_families": ["ts"], "feature_hash": "h",
             "stats": {"mean": 0, "std": 1, "pct_nan": 0, "min": 0, "max": 1}}
    entry.update(extra)
    return entry


class TestFlatten:
    def test_nested_records_flatten_to_entry_copies(self):
        r = rotation()
        out = st._flatten_vocabulary_entries({"fam": {"sub": [r, "text", [rotation("deep")]]}, "other": 3})
        assert out == [r] and out[0] is not r


class TestNormalize:
    @pytest.mark.parametrize("vocab", [None, [], "x"])
    def test_non_records_give_two_empty_lists(self, vocab):
        assert st._normalize_template_vocabulary(vocab) == {"functions": [], "features": []}

    def test_functions_in_kind_order_and_extra_keys_kept(self):
        filt = {"name": "f", "function_type": "filtration", "function_family": "mask", "param_schema": {}}
        red = rotation("sum", function_type="reduction")
        vocab = {"reductions": [red], "filtrations": {"m": [filt]}, "rotations": {"ts": [rotation()]},
                 "features": {"price": [feature()]}, "meta": 1}
        out = st._normalize_template_vocabulary(vocab)
        assert [f["name"] for f in out["functions"]] == ["r", "f", "sum"]
        assert out["features"] == [feature()] and out["meta"] == 1 and "rotations" in out
        assert vocab["features"] == {"price": [feature()]}

    def test_flat_lists_pass_unchecked(self):
        vocab = {"functions": [{"bad": 1}], "features": [{}]}
        assert st._normalize_template_vocabulary(vocab) == vocab

    def test_first_bad_entry_stops_normalisation(self):
        with pytest.raises(st.VocabSchemaError) as info:
            st._normalize_template_vocabulary({"rotations": [rotation(), {"name": "bad"}], "features": [1]})
        assert info.value.entry == {"name": "bad"} and info.value.source_kind == "rotation"


class TestEntryContract:
    def test_filtration_may_not_have_a_subfamily(self):
        entry = {"name": "f", "function_type": "filtration", "function_family": "m", "param_schema": {},
                 "function_subfamily": "x"}
        with pytest.raises(st.VocabSchemaError) as info:
            st._validate_function_entry(entry, "filtration")
        assert info.value.unexpected == {"function_subfamily"} and info.value.missing == frozenset()
        assert str(info.value) == ("vocabulary filtration entry violates canonical contract; "
                                   "unexpected fields: function_subfamily")

    def test_wrong_function_type_is_unexpected(self):
        with pytest.raises(st.VocabSchemaError) as info:
            st._validate_function_entry(rotation(function_type="reduction"), "rotation")
        assert info.value.unexpected == {"function_type"}

    def test_non_record_entry_misses_everything(self):
        with pytest.raises(st.VocabSchemaError) as info:
            st._validate_function_entry("r", "reduction")
        assert info.value.missing == st._REDUCTION_REQUIRED_FIELDS and info.value.entry == "r"

    def test_unknown_kind(self):
        with pytest.raises(ValueError, match="unknown function source_kind 'feature'"):
            st._validate_function_entry(rotation(), "feature")

    @pytest.mark.parametrize("stats, missing", [
        (None, {"stats.max", "stats.mean", "stats.min", "stats.pct_nan", "stats.std"}),
        ({"mean": 0, "std": 1, "min": 0, "max": 1}, {"stats.pct_nan"}),
    ])
    def test_feature_stats_keys(self, stats, missing):
        with pytest.raises(st.VocabSchemaError) as info:
            st._validate_feature_entry(feature(stats=stats))
        assert info.value.missing == missing
        if stats is None:
            assert str(info.value).endswith("missing fields: stats.max, stats.mean, stats.min, stats.pct_nan, "
                                            "stats.std")

    def test_feature_without_stats_misses_only_stats(self):
        entry = feature()
        del entry["stats"]
        with pytest.raises(st.VocabSchemaError) as info:
            st._validate_feature_entry(entry)
        assert info.value.missing == {"stats"}

    def test_valid_entries_pass(self):
        assert st._validate_function_entry(rotation(extra="kept"), "rotation") is None
        assert st._validate_feature_entry(feature()) is None


def test_schema_error_is_a_value_error_with_custom_message():
    err = st.VocabSchemaError("rotation", missing={"a"}, message="custom")
    assert isinstance(err, ValueError) and str(err) == "custom" and err.missing == frozenset({"a"})
    assert err.unexpected == frozenset() and err.entry is None


# ---------------------------------------------------------------- hostile input

FIELDS = sorted(set(st._ROTATION_REQUIRED_FIELDS) | set(st._FEATURE_REQUIRED_FIELDS) | {"stats"})
STATS_KEYS = sorted(st._FEATURE_STATS_REQUIRED_KEYS)


def ref_flatten(node):
    if isinstance(node, list):
        return [dict(x) for x in node if isinstance(x, dict)]
    if isinstance(node, dict):
        return [e for v in node.values() for e in ref_flatten(v)]
    return []


def entries():
    """Entries that are mostly well formed, with hostile values and keys mixed in."""
    value = hs.one_of(hd.leaves(), hs.sampled_from(["rotation", "filtration", "reduction", "feature"]),
                      hs.fixed_dictionaries({}, optional={k: hd.leaves() for k in STATS_KEYS}))
    key = hs.one_of(hs.sampled_from(FIELDS), hd.leaves().filter(lambda k: not isinstance(k, (list, dict))))
    return hs.one_of(hs.dictionaries(key, value, max_size=10), hd.leaves())


def vocabularies():
    tree = hs.recursive(hs.lists(entries(), max_size=4),
                        lambda kids: hs.dictionaries(hs.sampled_from(["a", "b", "c"]), kids, max_size=3),
                        max_leaves=8)
    kinds = ["rotations", "filtrations", "reductions", "features", "functions"]
    return hs.one_of(hs.dictionaries(hs.sampled_from(kinds), hs.one_of(tree, hd.nested(8)), max_size=5), hd.nested(8))


@given(hd.plain_nested())
def test_flatten_matches_the_python_walk_on_ordinary_data(node):
    assert st._flatten_vocabulary_entries(node) == ref_flatten(node)


@given(hs.data(), vocabularies())
def test_normalisation_raises_only_ordinary_errors(data, vocab):
    hd.arm(data, vocab)
    outcome, result = hd.ordinary_outcome(st._normalize_template_vocabulary, vocab)
    if outcome == "ok":
        assert isinstance(result, dict)
    hd.ordinary_outcome(st._flatten_vocabulary_entries, vocab)


@given(hs.data(), entries(), hs.one_of(hs.sampled_from(["rotation", "filtration", "reduction"]), hd.leaves()))
def test_entry_validation_raises_only_ordinary_errors(data, entry, kind):
    hd.arm(data, entry)
    for outcome, exc in [hd.ordinary_outcome(st._validate_function_entry, entry, kind),
                         hd.ordinary_outcome(st._validate_feature_entry, entry)]:
        if outcome == "raised" and isinstance(exc, st.VocabSchemaError):
            assert isinstance(exc.missing, frozenset) and isinstance(exc.unexpected, frozenset)


@given(hs.data(), hd.leaves(), hd.nested(6), hd.nested(6), hs.one_of(hs.none(), hd.leaves()))
def test_schema_error_builds_from_any_arguments(data, kind, missing, unexpected, message):
    hd.arm(data, [missing, unexpected])
    hd.ordinary_outcome(st.VocabSchemaError, kind, missing, unexpected, None, message)


@pytest.mark.parametrize("make", [hd.deep_dict, hd.cyclic_dict])
def test_deep_and_cyclic_trees_end_in_recursion_error(make):
    with pytest.raises(RecursionError):
        st._flatten_vocabulary_entries(make())
    with pytest.raises(RecursionError):
        st._normalize_template_vocabulary({"rotations": make()})


def test_texts_keep_surrogates_and_any_key():
    err = st.VocabSchemaError("\udc80", missing={"b\udc80", "a"})
    assert str(err) == "vocabulary \udc80 entry violates canonical contract; missing fields: a, b\udc80"
    with pytest.raises(ValueError) as info:
        st._validate_function_entry({}, "\udc80")
    assert str(info.value) == "unknown function source_kind '\\udc80'"


def test_stats_key_names_are_formatted_as_in_an_fstring(monkeypatch):
    monkeypatch.setattr(st, "_FEATURE_STATS_REQUIRED_KEYS", frozenset({"\udc80", 5}))
    entry = {"name": "c", "function_type": "feature", "feature_family": "p", "feature_subfamily": "r",
             "rotation_families": [], "feature_hash": "h", "stats": {}}
    with pytest.raises(st.VocabSchemaError) as info:
        st._validate_feature_entry(entry)
    assert info.value.missing == {"stats.\udc80", "stats.5"}
