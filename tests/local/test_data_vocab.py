import json
import os

import numpy as np
import pytest

from tarnwicket.local.data_source import LocalMarketSource, vocabulary_path
from tarnwicket.local.features import FEATURE_NAMES, compute_features
from tarnwicket.local.market_data import PRICE_FIELDS, generate_panel, load_panel, panel_path

UNIVERSE = "universe_top50"


@pytest.fixture(scope="module")
def materialised(tmp_path_factory):
    data_dir = str(tmp_path_factory.mktemp("data"))
    source = LocalMarketSource(seed=0)
    assert not source.is_present(data_dir, UNIVERSE)
    source.materialise(data_dir, UNIVERSE)
    with open(vocabulary_path(data_dir, UNIVERSE)) as fh:
        vocab = json.load(fh)
    return data_dir, vocab


def flatten(node):
    if isinstance(node, list):
        return [e for e in node if isinstance(e, dict)]
    if isinstance(node, dict):
        return [e for v in node.values() for e in flatten(v)]
    return []


class TestMarketData:
    def test_same_seed_same_data_other_seed_other_data(self):
        a, b, c = generate_panel(3), generate_panel(3), generate_panel(4)
        for name in PRICE_FIELDS + ("sector", "dates"):
            np.testing.assert_array_equal(getattr(a, name), getattr(b, name))
        assert not np.allclose(np.nan_to_num(a.close), np.nan_to_num(c.close))

    def test_shape_and_realism(self, synthetic_panel):
        p = synthetic_panel
        assert p.shape == (756, 50)
        assert np.all(np.diff(p.dates) > 0)
        ok = np.isfinite(p.close)
        assert 0.98 < ok.mean() < 1.0                   # two late listings
        assert (p.high[ok] >= np.maximum(p.open, p.close)[ok]).all()
        assert (p.low[ok] <= np.minimum(p.open, p.close)[ok]).all()
        assert ((p.vwap[ok] >= p.low[ok]) & (p.vwap[ok] <= p.high[ok])).all()
        assert (p.volume[ok] > 0).all()
        r = np.diff(np.log(p.close), axis=0)
        r = np.where(np.isfinite(r), r, 0.0)
        vol = r.std(axis=0) * np.sqrt(252)
        assert 0.1 < np.median(vol) < 0.6
        corr = np.corrcoef(r.T)
        assert 0.1 < (corr.sum() - 50) / (50 * 49) < 0.6   # a common factor
        # Volatility clusters: a calm month tends to follow a calm month.
        blocks = np.abs(r[:735]).reshape(35, 21, 50).mean(axis=1)
        auto = [np.corrcoef(blocks[1:, i], blocks[:-1, i])[0, 1] for i in range(50)]
        assert np.nanmean(auto) > 0.1

    def test_materialise_round_trip_and_no_leftovers(self, materialised):
        data_dir, _ = materialised
        assert LocalMarketSource().is_present(data_dir, UNIVERSE)
        loaded = load_panel(panel_path(data_dir, UNIVERSE))
        np.testing.assert_array_equal(loaded.close, generate_panel(0).close)
        assert sorted(os.listdir(os.path.join(data_dir, UNIVERSE))) == ["panel.npz", "vocabulary.json"]

    def test_partial_universe_is_not_present(self, tmp_path):
        source = LocalMarketSource()
        os.makedirs(tmp_path / UNIVERSE)
        (tmp_path / UNIVERSE / "vocabulary.json").write_text("{}")
        assert not source.is_present(str(tmp_path), UNIVERSE)


class TestVocabulary:
    def test_nested_form_and_kinds(self, materialised):
        _, vocab = materialised
        assert {"rotations", "filtrations", "reductions", "features"} <= set(vocab)
        for key, kind in (("rotations", "rotation"), ("filtrations", "filtration"),
                          ("reductions", "reduction")):
            entries = flatten(vocab[key])
            assert entries and all(e["function_type"] == kind for e in entries)
            for e in entries:
                assert {"name", "function_family", "param_schema"} <= set(e)
                assert ("function_subfamily" in e) == (kind != "filtration")

    def test_rotation_params(self, materialised):
        _, vocab = materialised
        rotations = {e["name"]: e for e in flatten(vocab["rotations"])}
        for e in rotations.values():
            types = [p["type"] for p in e["param_schema"].values()]
            # data inputs come first, in the order the graph's children take
            assert types == sorted(types, key=lambda t: t != "data")
            for p in e["param_schema"].values():
                if p["type"] == "int" and e.get("stateful"):
                    assert p["min"] <= p["default"] <= min(p["max"], 60)
        assert rotations["ts_rank"]["stateful"] is True
        assert rotations["rank"]["param_schema"]["ascending"] == {"type": "bool", "default": True}
        assert rotations["winsorize"]["param_schema"]["limit"]["type"] == "float"
        # the three a generator must refuse
        assert rotations["masked_mean"]["param_schema"]["mask"]["type"] == "filtration"
        assert rotations["ts_backfill"]["engine_only"] is True
        assert rotations["sum_of"]["param_schema"]["inputs"]["variadic"] is True

    def test_features_carry_stats_of_the_data(self, materialised, synthetic_panel):
        _, vocab = materialised
        features = {e["name"]: e for e in flatten(vocab["features"])}
        assert set(features) == set(FEATURE_NAMES)
        panels = compute_features(synthetic_panel)
        for name, e in features.items():
            assert e["function_type"] == "feature"
            assert {"feature_family", "feature_subfamily", "rotation_families"} <= set(e)
            assert len(e["feature_hash"]) == 16
            arr = panels[name]
            assert e["stats"]["pct_nan"] == pytest.approx(np.isnan(arr).mean())
            assert e["stats"]["mean"] == pytest.approx(np.nanmean(arr))
            assert e["stats"]["max"] == pytest.approx(np.nanmax(arr))
        assert len({e["feature_hash"] for e in features.values()}) == len(features)

    def test_passes_the_module_normaliser(self, materialised):
        st = pytest.importorskip("tarnwicket.search_templates")
        normalize = getattr(st, "_normalize_template_vocabulary", None)
        if normalize is None:
            pytest.skip("normaliser not built")
        _, vocab = materialised
        flat = normalize(vocab)
        assert len(flat["functions"]) == len(flatten(vocab["rotations"])) + len(
            flatten(vocab["filtrations"])) + len(flatten(vocab["reductions"]))
        assert [f["name"] for f in flat["features"]] == [e["name"] for e in flatten(vocab["features"])]
