import pytest

import tarnwicket.search_templates as st


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

    @pytest.mark.parametrize("node", [None, 3, "x", (rotation(),)])
    def test_non_containers_give_nothing(self, node):
        assert st._flatten_vocabulary_entries(node) == []


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
