import datetime
import json
import sqlite3
import time
import types

import pytest

import tarnwicket.search_templates as st


def kwargs(**overrides):
    kw = dict(graph={"type": "feature"}, universe_id="u", signal_pool_id="pool-a", is_stats={"sharpe": 1.0, "n": 3},
              is_pnl_mi=0.2, metaparameters={"a": "1"}, expression_elapsed_seconds=0.5, search_state={},
              idempotency_key="key-1")
    kw.update(overrides)
    return {k: v for k, v in kw.items() if v is not Ellipsis}


def test_serialisation_is_sorted_and_stable():
    a = {"b": 1, "a": {"z": 1, "y": [float("nan")]}, "d": datetime.date(2024, 1, 2), "e": "é"}
    b = dict(reversed(list(a.items())))
    assert st._serialize_submission_payload(a) == st._serialize_submission_payload(b) == (
        '{"a": {"y": [NaN], "z": 1}, "b": 1, "d": "2024-01-02", "e": "\\u00e9"}')


def test_storage_form_strips_only_transient_keys():
    transient = dict(_queue_id=1, retry_id=2, retry_count=3, retry_after=4.0, _journal_replay=True,
                     _source_created_at=5, _source_payload_json="{}")
    kept = dict(eval_id="e", _submission_owner="o", idempotency_key="k", unknown=9)
    payload = dict(transient, **kept)
    assert st._submission_payload_for_storage(payload) == kept and "_queue_id" in payload


@pytest.mark.parametrize("text, error", [
    ("", "payload_json must not be empty"), (None, "payload_json must not be empty"),
    ("[1, 2]", "payload_json must decode to an object"),
])
def test_load_payload(text, error):
    with pytest.raises(ValueError, match=f"^{error}$"):
        st._load_submission_payload(text)
    with pytest.raises(json.JSONDecodeError):
        st._load_submission_payload("{not json")
    assert st._load_submission_payload('{"a": 1}') == {"a": 1}


@pytest.mark.parametrize("payload, missing", [
    ([1], {"eval_id", "submission_type", "era_id"}),
    ({"eval_id": "e"}, {"submission_type", "era_id"}),
    ({"eval_id": None, "submission_type": None}, {"era_id"}),
])
def test_row_schema_errors(payload, missing):
    with pytest.raises(st.RowSchemaError) as ei:
        st._require_payload_typed_keys(payload, "submission_queue", 17)
    assert (ei.value.source_kind, ei.value.missing, ei.value.row_id) == ("submission_queue", frozenset(missing), 17)
    assert str(ei.value).endswith("missing keys: " + ", ".join(sorted(missing)))


@pytest.fixture
def conn():
    c = sqlite3.connect(":memory:")
    c.execute("CREATE TABLE signal_evaluations (eval_id TEXT, pool_id TEXT)")
    c.execute("CREATE TABLE strategy_evaluations (eval_id TEXT, strategy_pool_id TEXT, signal_pool_id TEXT)")
    c.execute("INSERT INTO signal_evaluations VALUES ('s1', 'row-pool')")
    c.execute("INSERT INTO strategy_evaluations VALUES ('t1', 'row-strat', 'row-sig')")
    yield c
    c.close()


@pytest.mark.parametrize("payload, expected", [
    ({"submission_type": "signal", "eval_id": "s1"}, ("row-pool", None)),
    ({"submission_type": "signal", "eval_id": "s1", "signal_pool_id": "p-sig"}, ("p-sig", None)),
    ({"eval_id": "s1", "pool_id": "p", "signal_pool_id": "p-sig"}, ("p", None)),
    ({"submission_type": "signal", "eval_id": "none"}, (None, None)),
    ({"submission_type": "strategy", "eval_id": "t1"}, ("row-strat", "row-sig")),
    ({"submission_type": "strategy", "eval_id": "t1", "strategy_pool_id": "ps", "signal_pool_id": "pg"}, ("ps", "pg")),
    ({"submission_type": "strategy", "eval_id": "zz", "signal_pool_id": "pg"}, (None, "pg")),
])
def test_resolve_pool_ids(conn, payload, expected):
    assert st._resolve_submission_pool_ids(conn, payload) == expected


def test_strategy_without_signal_pool_fails(conn):
    with pytest.raises(ValueError, match="^signal_pool_id must be a non-empty string$"):
        st._resolve_submission_pool_ids(conn, {"submission_type": "strategy", "eval_id": "zz"})


@pytest.mark.parametrize("overrides, message", [
    ({"is_pnl_mi_values": [1], "is_mi": 1, "signal_pool_id": None}, "is_pnl_mi_values is no longer supported; provide is_pnl_mi as a scalar"),
    ({"is_mi_values": [1], "is_mi": 1}, "is_mi_values is no longer supported; provide is_pnl_mi as a scalar"),
    ({"is_mi": 0.1, "signal_pool_id": Ellipsis}, "is_mi is no longer supported; provide is_pnl_mi as a scalar"),
    ({"signal_pool_id": Ellipsis, "is_stats": Ellipsis}, "signal_pool_id is required"),
    ({"signal_pool_id": None}, "signal_pool_id must be a non-empty string"),
    ({"signal_pool_id": 7}, "signal_pool_id must be a non-empty string"),
    ({"is_stats": Ellipsis}, "is_stats is required"),
    ({"is_stats": [("sharpe", 1.0)]}, "is_stats must be a dict"),
    ({"is_stats": {"x": [{"is_mi": float("nan")}]}, "is_pnl_mi": Ellipsis}, "is_stats must not contain MI contract fields"),
    ({"is_stats": {"a": {"b": [float("inf")]}}}, "is_stats values must be finite numbers"),
    ({"is_pnl_mi": Ellipsis}, "is_pnl_mi is required"),
    ({"is_pnl_mi": True}, "is_pnl_mi must be a finite scalar number"),
    ({"is_pnl_mi": 10**400}, "is_pnl_mi must be a finite scalar number"),
    ({"expression_elapsed_seconds": Ellipsis}, "expression_elapsed_seconds is required"),
    ({"expression_elapsed_seconds": 0.0}, "expression_elapsed_seconds must be a positive float"),
    ({"expression_elapsed_seconds": 1}, "expression_elapsed_seconds must be a positive float"),
    ({"expression_elapsed_seconds": float("inf")}, "expression_elapsed_seconds must be a positive float"),
])
def test_contract_gate_messages_in_order(overrides, message):
    with pytest.raises(ValueError) as ei:
        st._validate_submit_contract_kwargs(kwargs(**overrides))
    assert str(ei.value) == message


def test_submit_kwargs_keep_allowed_keys_with_defaults():
    payload = kwargs(metaparameters=Ellipsis, search_state=None, eval_id="e", era_id=3)
    assert st._validate_submit_contract_kwargs(payload) is None
    out = st._submit_kwargs_from_payload(payload, st._SIGNAL_SUBMIT_KWARGS)
    assert list(out) == list(st._SIGNAL_SUBMIT_KWARGS) and out["graph"] is payload["graph"]
    assert out["metaparameters"] is None and out["search_state"] is None
    strategy = st._submit_kwargs_from_payload(payload, st._STRATEGY_SUBMIT_KWARGS)
    assert strategy["referenced_signal_ids"] is st._SUBMIT_KWARG_DEFAULTS["referenced_signal_ids"]
    with pytest.raises(ValueError, match="^idempotency_key is required$"):
        st._submit_kwargs_from_payload(kwargs(idempotency_key=Ellipsis), st._SIGNAL_SUBMIT_KWARGS)


def test_submit_kwargs_use_the_current_gate(monkeypatch):
    seen = []
    monkeypatch.setattr(st, "_validate_submit_contract_kwargs", lambda kw: seen.append(dict(kw)))
    assert st._submit_kwargs_from_payload({"graph": 1}, ("graph",)) == {"graph": 1} and seen == [{"graph": 1}]


@pytest.mark.parametrize("conn, expected", [(Ellipsis, False), (None, False), (object(), True), (0, True)])
def test_persistent_store_test(conn, expected):
    tracker = types.SimpleNamespace() if conn is Ellipsis else types.SimpleNamespace(_conn=conn)
    assert st._tracker_uses_persistent_store(tracker) is expected


@pytest.mark.parametrize("seconds, interval, slept", [(10, 0.5, 0.5), (0.1, 0.5, 0.1), ("0.2", 0.5, 0.2), (3, 1.0, 1.0)])
def test_backoff_sleep_is_capped_by_poll_interval(monkeypatch, seconds, interval, slept):
    calls = []
    monkeypatch.setattr(time, "sleep", calls.append)
    monkeypatch.setattr(st, "SUBMISSION_POLL_INTERVAL", interval)
    st._submission_backoff_sleep(seconds)
    assert calls == [slept]
