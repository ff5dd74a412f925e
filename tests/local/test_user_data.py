"""A user's own market data: read, checked, installed, and searched."""

import json
import os

import numpy as np
import pytest

from tarnwicket.local import cli
from tarnwicket.local.evaluator import LocalEvaluator
from tarnwicket.local.market_data import UNIVERSE_ID, load_panel, panel_path
from tarnwicket.local.user_data import DataFileError, install_market_file, read_market_file

SAMPLE = os.path.join(os.path.dirname(__file__), "..", "data", "sample_prices.csv")


def sample_lines():
    with open(SAMPLE) as fh:
        return fh.read().splitlines()


def write(tmp_path, lines, name="prices.csv"):
    path = tmp_path / name
    path.write_text("\n".join(lines) + "\n")
    return str(path)


def test_the_sample_becomes_a_panel_with_its_own_feature(tmp_path):
    panel = read_market_file(SAMPLE)
    assert panel.shape == (260, 8) and panel.dates[0] == 20210104 and list(panel.symbols)[:2] == ["ALDR", "BRKW"]
    assert set(panel.extras) == {"short_interest"} and panel.extras["short_interest"].shape == (260, 8)
    assert sorted(set(panel.sector.tolist())) == [0, 1, 2, 3]          # four sector labels
    assert panel.sector[0] == panel.sector[2]                          # ALDR and CSTL: both industrials
    np.testing.assert_allclose(panel.vwap, (panel.high + panel.low + panel.close) / 3)
    assert np.isnan(panel.close).any()                                 # late listings are missing, not zero

    pq = pytest.importorskip("pyarrow.parquet")
    import pyarrow.csv as pacsv
    pq.write_table(pacsv.read_csv(SAMPLE), str(tmp_path / "prices.parquet"))
    again = read_market_file(str(tmp_path / "prices.parquet"))
    np.testing.assert_array_equal(again.dates, panel.dates)
    np.testing.assert_allclose(again.close, panel.close, equal_nan=True)
    np.testing.assert_allclose(again.extras["short_interest"], panel.extras["short_interest"], equal_nan=True)


def _dup(lines):
    return lines + [lines[5]]


@pytest.mark.parametrize("change, says", [
    (lambda ls: [ls[0].replace(",high", ",hi")] + ls[1:], "missing columns: high"),
    (_dup, "are both"),
    (lambda ls: ls[:3] + [ls[3].replace(ls[3].split(",")[5], "n/a", 1)] + ls[4:], "row 4: close 'n/a' is not a number"),
    (lambda ls: ls[:2] + ["03/01/2021" + ls[2][10:]] + ls[3:], "row 3: date '03/01/2021' is not a date"),
    (lambda ls: ls[:8 * 40], "dates; at least 60 are needed"),
    (lambda ls: [l for l in ls if ",ALDR," in l or ",BRKW," in l or l == ls[0]], "2 symbols; at least 5"),
    (lambda ls: ls[:2] + [ls[2].replace(ls[2].split(",")[5], "-1.0", 1)] + ls[3:], "close prices must be positive"),
    (lambda ls: [ls[0] + ",Bad Name"] + [l + ",1" for l in ls[1:]], "can't be a feature name"),
    (lambda ls: ls[:2] + [ls[2] + ",9"] + ls[3:], "row 3: 10 fields, the header has 9"),
])
def test_a_bad_file_is_told_in_one_line(tmp_path, change, says):
    path = write(tmp_path, change(sample_lines()))
    with pytest.raises(DataFileError) as raised:
        read_market_file(path)
    message = str(raised.value)
    assert says in message and message.startswith(path) and "\n" not in message


def test_a_path_that_is_no_file_is_told_apart_from_a_missing_one(tmp_path):
    with pytest.raises(DataFileError, match="not a regular file"):
        read_market_file(str(tmp_path))
    with pytest.raises(DataFileError, match="no such file"):
        read_market_file(str(tmp_path / "absent.csv"))


def test_search_on_your_own_data_from_the_command_line(tmp_path, capsys):
    data_dir = tmp_path / "d"
    assert cli.main(["search", "--data", SAMPLE, "--data-dir", str(data_dir), "--seconds", "3", "--jobs", "1"]) == 0
    out = capsys.readouterr().out
    assert "This run evaluated" in out
    assert "(260 days, 8 symbols; features of your own: short_interest)" in out
    panel = load_panel(panel_path(str(data_dir), UNIVERSE_ID))
    assert panel.shape == (260, 8) and set(panel.extras) == {"short_interest"}
    vocab = json.loads((data_dir / UNIVERSE_ID / "vocabulary.json").read_text())
    [own] = vocab["features"]["custom"]["column"]
    assert own["name"] == "short_interest" and own["stats"]["pct_nan"] < 0.2
    graph = {"type": "rotation", "node": "rank", "children": [{"type": "feature", "node": "short_interest"}]}
    assert LocalEvaluator(str(data_dir)).evaluate_expression(graph).shape == (260, 8)
    assert install_market_file(str(data_dir), SAMPLE, UNIVERSE_ID) is None     # the same file: nothing to do

    # A bad file changes nothing and is told in one line.
    bad = write(tmp_path, sample_lines()[:100])
    before = (data_dir / UNIVERSE_ID / "panel.npz").read_bytes()
    assert cli.main(["search", "--data", bad, "--data-dir", str(data_dir), "--seconds", "1"]) == cli.EXIT_USAGE
    err = capsys.readouterr().err
    assert err.count("\n") == 1 and "at least 60 are needed" in err
    assert (data_dir / UNIVERSE_ID / "panel.npz").read_bytes() == before
