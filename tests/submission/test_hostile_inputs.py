"""The payload and signal-service binding helpers against hostile arguments."""

import copy
import time
import types
from collections import UserDict

import pytest
from hypothesis import given
from hypothesis import strategies as hs

import tarnwicket.search_templates as st

from fakes import context_fakes as cf
from fakes import hostile_data as hd

PAYLOAD_KEYS = ["eval_id", "submission_type", "graph", "universe_id", "signal_pool_id", "is_stats", "is_pnl_mi",
                "expression_elapsed_seconds", "metaparameters", "search_state", "idempotency_key", "pool_id",
                "_queue_id", "retry_id", "is_mi", "strategy_pool_id"]
GOOD = dict(eval_id="e-1", submission_type="signal", graph={"type": "feature"}, universe_id="u",
            signal_pool_id="pool-a", is_stats={"sharpe": 1.0}, is_pnl_mi=0.2, expression_elapsed_seconds=0.5,
            metaparameters={}, search_state={}, idempotency_key="k")


@pytest.fixture(scope="module", autouse=True)
def service():
    """Fake submit, auth and onboarding modules for the whole file, and no real sleeping."""
    mp = pytest.MonkeyPatch()
    s = cf.install_service(mp, st)
    mp.setattr(time, "sleep", lambda s: None)
    yield s
    mp.undo()


def payloads():
    value = hs.one_of(hd.leaves(), hd.nested(6))
    mixed = hs.dictionaries(hs.one_of(hs.sampled_from(PAYLOAD_KEYS), hd.leaves().filter(lambda k: not isinstance(k, (list, dict)))),
                            value, max_size=8)
    # GOOD's own containers are copied: the traps may empty them
    overridden = hs.dictionaries(hs.sampled_from(PAYLOAD_KEYS), value, max_size=4).map(
        lambda d: {**copy.deepcopy(GOOD), **d})
    return hs.one_of(mixed, overridden, overridden.map(hd.ShrinkingDict), hd.leaves())


@given(hs.data(), payloads())
def test_payload_helpers_return_or_raise_ordinarily(data, payload):
    allowed = data.draw(hs.one_of(hs.lists(hs.sampled_from(PAYLOAD_KEYS)), hd.leaves(), hd.nested(4)))
    row = data.draw(hs.one_of(hs.none(), hd.leaves(), hs.tuples(hd.leaves(), hd.leaves())))
    row_id, payload_json, tracker, seconds = (data.draw(hd.leaves()) for _ in range(4))
    conn = types.SimpleNamespace(execute=lambda *a: types.SimpleNamespace(fetchone=lambda: row))
    hd.arm(data, [payload, allowed, row])
    hd.ordinary_outcome(st._validate_submit_contract_kwargs, payload)
    hd.ordinary_outcome(st._submit_kwargs_from_payload, payload, allowed)
    hd.ordinary_outcome(st._submission_payload_for_storage, payload)
    hd.ordinary_outcome(st._serialize_submission_payload, payload)
    hd.ordinary_outcome(st._require_payload_typed_keys, payload, "queue", row_id)
    hd.ordinary_outcome(st._resolve_submission_pool_ids, conn, payload)
    hd.ordinary_outcome(st._load_submission_payload, payload_json)
    hd.ordinary_outcome(st._tracker_uses_persistent_store, tracker)
    hd.ordinary_outcome(st._submission_backoff_sleep, seconds)


@given(hs.dictionaries(hs.sampled_from(PAYLOAD_KEYS), hs.one_of(hs.none(), hs.text(max_size=3), hs.floats()),
                       max_size=6))
def test_storage_form_drops_exactly_the_transient_keys(extra):
    payload = {**GOOD, **extra}
    out = st._submission_payload_for_storage(payload)
    assert out == {k: v for k, v in payload.items() if k not in ("_queue_id", "retry_id")}


def results():
    code = hs.one_of(hs.sampled_from([0, 200, 201, 299, 300, 401, 500, 503]), hd.leaves())
    return hs.builds(cf.ClientResult, status_code=code, error=hd.leaves(), body=hs.one_of(hd.nested(6), hd.leaves()),
                     submission_id=hd.leaves())


@given(data=hs.data(), result=results())
def test_binding_maps_any_client_result_ordinarily(service, data, result):
    kind, submission_id, poll_id, timeout = (data.draw(hd.leaves()) for _ in range(4))
    args = data.draw(hs.lists(hs.one_of(hd.leaves(), hd.nested(4)), min_size=6, max_size=6))
    payload = data.draw(payloads())
    args = tuple(args)
    hd.arm(data, [result.body, result.status_code, result.submission_id, args, payload])
    service.submit.result = result
    hd.ordinary_outcome(st._result_to_receipt, result, kind, service.submit.SubmissionReceipt,
                        service.submit.SubmissionRejectedError)
    hd.ordinary_outcome(st._poll_status_internal, submission_id)
    hd.ordinary_outcome(st.poll_status, poll_id)
    hd.ordinary_outcome(st._details_from_body, result.body)
    hd.ordinary_outcome(st.submit_signal, *[GOOD[k] for k in ("graph", "universe_id", "signal_pool_id", "is_stats",
                                                              "is_pnl_mi", "expression_elapsed_seconds")])
    hd.ordinary_outcome(st.submit_signal, *args, metaparameters=args[0], search_state=args[1])
    hd.ordinary_outcome(st._submit_signal_payload, payload)
    hd.ordinary_outcome(st._build_signal_service_client, timeout)
    service.submit.result = cf.ClientResult()


@given(data=hs.data(), config=hd.nested(8), token=hd.leaves(), url=hd.leaves())
def test_configuration_and_auth_lookups_survive_hostile_state(service, data, config, token, url):
    service.onboarding._config = {"server_url": url} if data.draw(hs.booleans()) else config
    service.auth.token = token
    era = data.draw(hs.sampled_from([lambda c: c, lambda c: types.SimpleNamespace(signal_pools=c),
                                     lambda c: {"signal_pools": c}]))(config)
    hd.arm(data, [config, token, url])
    try:
        for fn in (st._resolve_signal_service_url, st._submission_auth_obj, st._get_submission_token,
                   st._build_signal_service_client):
            hd.ordinary_outcome(fn)
        hd.ordinary_outcome(st._first_signal_pool_id_from_era_config, era)
        hd.ordinary_outcome(st._pool_id_from_config_entry, config)
    finally:
        service.onboarding._config = {"server_url": "http://127.0.0.1:8765"}
        service.auth.token = "tok-1"


# ---------------------------------------------------------------- regressions


def test_payload_whose_key_hash_empties_it_raises_as_a_loop_over_it_does():
    payload = {}

    class Key:
        armed = False

        def __hash__(self):
            if Key.armed:
                payload.clear()
            return 1

    key = Key()
    payload.update({key: object(), "_queue_id": 1, "a": 2})
    Key.armed = True
    with pytest.raises(RuntimeError, match="^dictionary changed size during iteration$"):
        st._submission_payload_for_storage(payload)


def test_submit_kwargs_take_any_mapping_and_refuse_non_mappings(monkeypatch):
    assert st._submit_kwargs_from_payload(UserDict(GOOD), ["graph"]) == {"graph": GOOD["graph"]}
    with pytest.raises(TypeError):
        st._submit_kwargs_from_payload(5, ["graph"])
    monkeypatch.setattr(st, "_SUBMIT_KWARG_DEFAULTS", [])
    with pytest.raises(ValueError, match="^referenced_signal_ids is required$"):
        st._submit_kwargs_from_payload(GOOD, ["referenced_signal_ids"])
    with pytest.raises(ValueError) as info:
        st._submit_kwargs_from_payload(GOOD, ["\udc80"])
    assert str(info.value) == "\udc80 is required"


def test_failing_len_of_signal_pools_reaches_the_caller():
    class BadLen(list):
        def __len__(self):
            raise hd.Boom("len")

    with pytest.raises(hd.Boom):
        st._first_signal_pool_id_from_era_config({"signal_pools": BadLen([{"name": "p"}])})


def test_replaced_kwargs_builder_may_return_any_mapping(monkeypatch, service):
    service.submit.result = cf.ClientResult()
    monkeypatch.setattr(st, "_submit_kwargs_from_payload", lambda payload, allowed: UserDict(a=1))
    st._submit_signal_payload(dict(GOOD))
    assert service.submit.clients[-1].submitted[-1] == {"a": 1}
    monkeypatch.setattr(st, "_submit_kwargs_from_payload", lambda payload, allowed: [("a", 1)])
    with pytest.raises(TypeError, match="must be a mapping"):
        st._submit_signal_payload(dict(GOOD))
    assert service.submit.clients[-1].closed == 1


def test_texts_of_server_answers_keep_surrogates(service):
    result = cf.ClientResult(status_code=500)
    with pytest.raises(ConnectionError) as info:
        st._result_to_receipt(result, "\udc80", None, service.submit.SubmissionRejectedError)
    assert str(info.value) == "Server error 500 during \udc80 submission"
    service.submit.result = cf.ClientResult(status_code=0)
    with pytest.raises(ConnectionError) as info:
        st._poll_status_internal("s\udc80")
    assert str(info.value) == "transport error while polling s\udc80"
    service.submit.result = cf.ClientResult()
