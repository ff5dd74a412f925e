"""Management operations and analytics computed from the tracker."""

import types

import pytest

from fakes.collaborators import graph, payload
from tarnwicket.search_analytics import SearchAnalytics, SearchStatsResult, _resolve_pool_configs
from tarnwicket.search_tracking import SearchTracker


@pytest.fixture
def tracker(tmp_path, store_url):
    t = SearchTracker(str(tmp_path), store=store_url)
    yield t
    t.close()


def record(tracker, passed=True, g=None, pool_id=None):
    return tracker.record_signal_evaluation(g or graph(), None, 1, passed, "u", {}, pool_id=pool_id)


def eval_ids(tracker, table="signal_evaluations"):
    return {r[0] for r in tracker._conn.execute(f"SELECT eval_id FROM {table}")}


def test_delete_evaluations_keeps_newest_per_type(tracker):
    ids = [record(tracker) for _ in range(5)]
    strategies = [tracker.record_strategy_evaluation(1, "s", "p", True) for _ in range(3)]
    assert tracker.delete_evaluations(eval_type="signal", keep_last=2) == 3
    assert eval_ids(tracker) == set(ids[-2:])
    assert eval_ids(tracker, "strategy_evaluations") == set(strategies)
    assert tracker.delete_evaluations(keep_last=1) == 1 + 2
    assert eval_ids(tracker) == {ids[-1]}
    assert tracker.delete_evaluations() == 0


def test_deletes_spare_evaluations_with_live_submission_work(tracker):
    queued, retrying, open_, closed, plain = (record(tracker) for _ in range(5))
    tracker.enqueue_submission(queued, "signal", payload(queued)[1], 1)
    tracker.enqueue_retry(retrying, "signal", payload(retrying)[1], 1, "401")
    tracker.record_submission(open_, "signal", "sub-open", 1)
    tracker.record_submission(closed, "signal", "sub-closed", 1)
    tracker.update_submission_status("sub-closed", "found")
    assert tracker.delete_evaluations(keep_last=0) == 2
    assert eval_ids(tracker) == {queued, retrying, open_}
    assert plain not in eval_ids(tracker)


def test_delete_failed_evaluations(tracker):
    keep = [record(tracker, passed=True) for _ in range(2)]
    for _ in range(3):
        record(tracker, passed=False)
    tracker.record_strategy_evaluation(1, "s", "p", False)
    assert tracker.delete_failed_evaluations(eval_type="signal") == 3
    assert eval_ids(tracker) == set(keep)
    assert tracker.delete_failed_evaluations() == 1


@pytest.mark.parametrize("call, exc", [
    (lambda t: t.delete_evaluations(eval_type="bogus"), ValueError),
    (lambda t: t.delete_evaluations(keep_last=-1), ValueError),
    (lambda t: t.delete_evaluations(keep_last="10"), TypeError),
    (lambda t: t.delete_evaluations(keep_last=True), TypeError),
    (lambda t: t.delete_failed_evaluations(eval_type=3), TypeError),
])
def test_management_rejects_bad_arguments(tracker, call, exc):
    record(tracker, passed=False)
    with pytest.raises(exc):
        call(tracker)
    assert tracker.get_evaluation_count() == 1


def test_get_db_info(tracker):
    for passed in (True, False, False):
        record(tracker, passed=passed)
    info = tracker.get_db_info()
    assert info["db_path"] == tracker._store.location and info["size_bytes"] > 0
    assert info["size_mb"] == round(info["size_bytes"] / 1048576, 3)
    assert (info["row_counts"]["signal_evaluations"], info["row_counts"]["submission_queue"]) == (3, 0)
    assert info["passed_signal_evaluations"] == 1


def test_search_stats_rows_per_function_and_feature(tracker):
    record(tracker, True, graph("rank", "close", "close"))
    record(tracker, False, graph("rank", "volume"))
    record(tracker, True, {"type": "rotation", "node": "delta", "children": [
        graph("rank", "close"), {"type": "float", "node": 0.5}]})
    record(tracker, False, graph("delta", "close"))

    stats = tracker.get_search_stats()
    assert isinstance(stats, SearchStatsResult)
    assert (stats.total_evaluations, stats.total_passed) == (4, 2)
    rows = {(r["type"], r["name"]): r for r in stats.rows}
    assert set(rows) == {("function", "rank"), ("function", "delta"), ("feature", "close"), ("feature", "volume")}
    assert rows["function", "rank"] == {"name": "rank", "type": "function", "yield_rate": 2 / 3, "evaluation_count": 3}
    assert rows["function", "delta"]["yield_rate"] == 0.5
    assert rows["feature", "close"]["evaluation_count"] == 3  # once per evaluation
    assert rows["feature", "volume"]["yield_rate"] == 0.0


def test_reads_work_where_files_and_databases_are_forbidden(tracker, monkeypatch):
    """Template code may refresh analytics while it can't open files or connect."""
    record(tracker, True)

    def forbidden(*a, **k):
        raise RuntimeError("forbidden in templates")

    monkeypatch.setattr("sqlite3.connect", forbidden)
    monkeypatch.setattr("psycopg.connect", forbidden)
    monkeypatch.setattr("builtins.open", forbidden)
    assert tracker.get_search_stats().total_evaluations == 1
    assert tracker.get_evaluation_count() == 1


def test_analytics_restricted_to_the_era_pools(tracker):
    record(tracker, True, pool_id="p1")
    record(tracker, False, pool_id="p2")
    record(tracker, False, pool_id=None)
    engine = SearchAnalytics(tracker, [{"signal_pool_id": "p1"}])
    assert engine.get_search_stats().total_evaluations == 2
    assert SearchAnalytics(tracker, []).get_search_stats().total_evaluations == 3


def test_analytics_of_a_tracker_without_evaluations_api():
    stats = SearchAnalytics(object(), []).get_search_stats()
    assert (stats.total_evaluations, stats.rows) == (0, [])
    with pytest.raises(TypeError):
        SearchAnalytics(object(), "p1")


POOLS = [{"signal_pool_id": "p1"}, {"name": "p2"}]


@pytest.mark.parametrize("era_config, expected", [
    (None, []),
    ({"signal_pools": POOLS}, POOLS),
    ({"signal_pools": "p1"}, []),
    ({}, []),
    (types.SimpleNamespace(signal_pools=tuple(POOLS)), POOLS),
    (types.SimpleNamespace(signal_pools=[], _data={"signal_pools": POOLS}), POOLS),
    (types.SimpleNamespace(), []),
])
def test_resolve_pool_configs(era_config, expected):
    assert _resolve_pool_configs(era_config=era_config) == expected
