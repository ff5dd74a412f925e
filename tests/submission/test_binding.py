import sys
import types

import pytest

import tarnwicket.search_templates as st

from fakes import context_fakes as cf

NOT_AUTHED = "Not authenticated. Run register() or login(private_key) first."


def payload(**overrides):
    p = dict(eval_id="e-1", submission_type="signal", graph={"type": "feature"}, universe_id="u",
             signal_pool_id="pool-a", is_stats={"sharpe": 1.0}, is_pnl_mi=0.2, metaparameters={"a": "1"},
             search_state={}, era_id=3, expression_elapsed_seconds=0.5, idempotency_key="key-1", _queue_id=9)
    p.update(overrides)
    return {k: v for k, v in p.items() if v is not Ellipsis}


def ns(**kw):
    return types.SimpleNamespace(**kw)


@pytest.mark.parametrize("entry, expected", [
    ({"name": "p1"}, "p1"), ({"signal_pool_id": "", "name": "p1"}, "p1"), ({"signal_pool_id": 7, "name": "p1"}, None),
    ({"name": ""}, None), (ns(name="obj"), "obj"), (ns(signal_pool_id="o-sp", name="n"), "o-sp"), ("p", None),
])
def test_pool_id_from_entry(entry, expected):
    assert st._pool_id_from_config_entry(entry) == expected


@pytest.mark.parametrize("era_config, expected", [
    (None, None),
    ({"signal_pools": [{"name": 3}, {"name": "second"}]}, "second"),
    ({"signal_pools": ({"signal_pool_id": "t"},)}, "t"),
    ({"signal_pools": "abc"}, None),
    (ns(signal_pools=[], _data={"signal_pools": [{"name": "from-data"}]}), "from-data"),
    (ns(signal_pools=[{"name": "own"}], _data={"signal_pools": [{"name": "data"}]}), "own"),
    (ns(_data={"signal_pools": "x"}), None),
])
def test_first_signal_pool_id(era_config, expected):
    assert st._first_signal_pool_id_from_era_config(era_config) == expected


@pytest.mark.parametrize("url, expected", [
    ("http://127.0.0.1:9", "http://127.0.0.1:9"), ("https://service.example.invalid", None), ("", None), (8080, None),
])
def test_service_url(service, url, expected):
    service.onboarding._config["server_url"] = url
    assert st._resolve_signal_service_url() == expected


def test_absent_onboarding_module_means_no_configuration(service, monkeypatch):
    monkeypatch.setitem(sys.modules, "tarnwicket.agent_onboarding", None)
    assert st._resolve_signal_service_url() is None and st._submission_auth_obj() is None


def test_onboarding_failing_on_another_module_is_raised(service, monkeypatch):
    class Finder:
        def find_spec(self, name, path=None, target=None):
            if name == "tarnwicket.agent_onboarding":
                raise ModuleNotFoundError("No module named 'dep'", name="dep")

    monkeypatch.delitem(sys.modules, "tarnwicket.agent_onboarding")
    monkeypatch.setattr(sys, "meta_path", [Finder(), *sys.meta_path])
    with pytest.raises(ModuleNotFoundError) as ei:
        st._resolve_signal_service_url()
    assert ei.value.name == "dep"


def test_auth_object_sources_in_order(service, monkeypatch):
    assert st._submission_auth_obj() is service.auth
    direct, proxy = cf.FakeAuth(), cf.FakeAuth()
    monkeypatch.setattr(st, "_auth", direct, raising=False)
    monkeypatch.setattr(st, "_library_runtime", ns(auth_proxy=None), raising=False)
    assert st._submission_auth_obj() is direct
    monkeypatch.setattr(st, "_library_runtime", ns(auth_proxy=proxy), raising=False)
    assert st._submission_auth_obj() is proxy


@pytest.mark.parametrize("manager, token, error, raised", [
    (True, "", None, "fixed"),
    (None, "t", None, "fixed"),
    (True, "t", cf.AuthError("gone", reason="not_authenticated"), "chained"),
    (True, "t", cf.AuthError("expired", reason="expired"), "same"),
    (True, "t", RuntimeError("x"), "same"),
])
def test_token_errors(service, manager, token, error, raised):
    service.auth.token, service.auth.error = token, error
    if manager is None:
        service.onboarding._auth_manager = None
    with pytest.raises(Exception) as ei:
        st._get_submission_token()
    if raised == "same":
        assert ei.value is error
    else:
        assert type(ei.value) is cf.AuthError and str(ei.value) == NOT_AUTHED
        assert ei.value.__cause__ is error


def test_client_build(service):
    assert st._get_submission_token() == "tok-1"
    client = st._build_signal_service_client()
    assert (client.server_url, client.token, client.timeout) == ("http://127.0.0.1:8765", "tok-1", 30.0)
    assert st._build_signal_service_client(timeout=5).timeout == 5
    service.onboarding._config["server_url"] = "http://x.invalid"
    with pytest.raises(ConnectionError, match="^No submission server configured$"):
        st._build_signal_service_client()
    assert service.auth.calls == 3


@pytest.mark.parametrize("code", [200, 299])
def test_submit_sends_the_nine_keywords_and_closes(service, code):
    service.submit.result = cf.ClientResult(status_code=code, submission_id="s-9")
    assert st._submit_signal_payload(payload()).submission_id == "s-9"
    client, = service.submit.clients
    assert list(client.submitted[0]) == list(st._SIGNAL_SUBMIT_KWARGS) and client.closed == 1


@pytest.mark.parametrize("result, exc_type, message", [
    (cf.ClientResult(status_code=0, error="reset by peer"), ConnectionError, "reset by peer"),
    (cf.ClientResult(status_code=0), ConnectionError, "transport error during signal submission"),
    (cf.ClientResult(status_code=500), ConnectionError, "Server error 500 during signal submission"),
    (cf.ClientResult(status_code=503, error="busy"), ConnectionError, "Server error 503 during signal submission"),
    (cf.ClientResult(submission_id=""), st.SubmissionProtocolError,
     "signal submission response missing required submission_id"),
])
def test_submit_failures_close_the_client(service, result, exc_type, message):
    service.submit.result = result
    with pytest.raises(exc_type) as ei:
        st._submit_signal_payload(payload())
    assert str(ei.value) == message and type(ei.value) is exc_type
    assert [c.closed for c in service.submit.clients] == [1]


@pytest.mark.parametrize("code", [199, 300, 401, 404])
@pytest.mark.parametrize("error, body, reason, details", [
    ("denied", {"code": "x"}, "denied", {"code": "x"}), (None, ["a"], "unknown", None), ("", None, "unknown", None),
])
def test_refusals(service, code, error, body, reason, details):
    service.submit.result = cf.ClientResult(status_code=code, error=error, body=body)
    with pytest.raises(service.submit.SubmissionRejectedError) as ei:
        st._submit_signal_payload(payload())
    assert (ei.value.status_code, ei.value.reason, ei.value.details, ei.value.body) == (code, reason, details, body)
    assert [c.closed for c in service.submit.clients] == [1]


@pytest.mark.parametrize("call", [lambda: st._submit_signal_payload(payload()), lambda: st.poll_status("s")])
def test_client_errors_close_and_missing_close_is_fine(service, call):
    service.use_submit(call_error=OSError("broken pipe"))
    with pytest.raises(OSError):
        call()
    assert service.submit.clients[0].closed == 1
    service.use_submit(with_close=False)
    call()


def test_failing_close_replaces_the_error_in_flight(service):
    service.submit.SignalServiceClient.close = lambda self: 1 / 0
    with pytest.raises(ZeroDivisionError) as ei:
        st._submit_signal_payload(payload(idempotency_key=Ellipsis))
    assert isinstance(ei.value.__context__, ValueError)


def test_public_submit_signal(service, monkeypatch):
    with pytest.raises(ValueError, match="^idempotency_key is required$"):
        st.submit_signal({"type": "f"}, "u", "pool-a", {"sharpe": 1.0}, 0.1, 0.2, metaparameters={"a": "b"})
    client, = service.submit.clients  # the local contract stops it before any request
    assert client.submitted == [] and client.closed == 1
    with pytest.raises(TypeError):
        st.submit_signal({}, "u", "p", {}, 0.1, 0.2, {"a": "b"})
    seen = []
    monkeypatch.setattr(st, "_submit_signal_payload", lambda p: seen.append(p) or "receipt")
    assert st.submit_signal("g", "u", "p", {}, 0.1, 0.2, search_state={"k": 1}) == "receipt"
    assert seen == [dict(graph="g", universe_id="u", signal_pool_id="p", is_stats={}, is_pnl_mi=0.1,
                         expression_elapsed_seconds=0.2, metaparameters=None, search_state={"k": 1})]


def test_result_to_receipt_uses_the_given_types():
    assert st._result_to_receipt(cf.ClientResult(submission_id="x"), "strategy", str, KeyError) == "x"
    with pytest.raises(st.SubmissionProtocolError, match="^strategy submission response missing required"):
        st._result_to_receipt(cf.ClientResult(submission_id=None), "strategy", str, KeyError)


# ---------------------------------------------------------------- polling

POLL_KEYWORDS = ["signal_pool_id", "is_correlation", "is_pnl_mi", "agent_is_pnl_mi", "is_weights_mi",
                 "failure_reason", "failure_detail"]


def test_poll_maps_the_body(service):
    body = dict({k: k.upper() for k in POLL_KEYWORDS}, status="useful", is_stats={"s": 1}, payment=3, ignored=1)
    service.submit.result = cf.ClientResult(body=body)
    status = st.poll_status("sub-7")
    assert status.args == ("sub-7", "useful", {"s": 1}, 3, None)
    assert list(status.kwargs.items()) == [(k, k.upper()) for k in POLL_KEYWORDS]
    client, = service.submit.clients
    assert client.polled == ["sub-7"] and client.closed == 1


@pytest.mark.parametrize("body", [None, ["x"]])
def test_poll_non_record_body(service, body):
    service.submit.result = cf.ClientResult(body=body)
    status = st._poll_status_internal("s")
    assert status.args == ("s", "is_validating", {}, None, None) and set(status.kwargs.values()) == {None}


@pytest.mark.parametrize("result, exc_type, message", [
    (cf.ClientResult(status_code=0, error="timeout"), ConnectionError, "timeout"),
    (cf.ClientResult(status_code=0), ConnectionError, "transport error while polling s-3"),
    (cf.ClientResult(status_code=502), ConnectionError, "Server error 502 while polling s-3"),
    (cf.ClientResult(status_code=404, body=["gone"]), None, None),
])
def test_poll_failures(service, result, exc_type, message):
    service.submit.result = result
    with pytest.raises(exc_type or service.submit.SubmissionRejectedError) as ei:
        st.poll_status("s-3")
    if message:
        assert str(ei.value) == message
    else:
        assert (ei.value.status_code, ei.value.reason, ei.value.details, ei.value.body) == (404, "unknown", None, ["gone"])
    assert service.submit.clients[0].closed == 1
