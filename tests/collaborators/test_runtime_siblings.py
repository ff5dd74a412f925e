"""Vocabulary source, sync manager, events, nudges and error types."""

import json
import logging
import os

import pytest

from fakes.collaborators import DirSource
from tarnwicket import agent_onboarding, callbacks
from tarnwicket.obfuscation import ObfuscationManager, load_vocabulary
from tarnwicket.sync import SyncError, SyncManager

VOCAB = {"rotations": {"momentum": [{"name": "rank"}]}, "features": [{"name": "close"}]}


def write_vocab(root, text, universe="universe_top50"):
    os.makedirs(root / universe, exist_ok=True)
    (root / universe / "vocabulary.json").write_text(text)


def test_load_vocabulary_from_expanded_data_dir(tmp_path, monkeypatch):
    monkeypatch.setenv("HOME", str(tmp_path))
    write_vocab(tmp_path / "data", json.dumps(VOCAB))
    assert load_vocabulary("~/data", "universe_top50") == VOCAB


@pytest.mark.parametrize("content, exc, match", [
    (None, FileNotFoundError, "universe_top50.vocabulary.json"),
    ("{not json", ValueError, "not valid JSON"),
    ("[1, 2]", ValueError, "JSON object"),
])
def test_load_vocabulary_errors(tmp_path, content, exc, match):
    if content is not None:
        write_vocab(tmp_path, content)
    with pytest.raises(exc, match=match):
        load_vocabulary(str(tmp_path), "universe_top50")


@pytest.mark.parametrize("universe, exc", [(None, TypeError), ("", TypeError),
                                           ("../x", ValueError)])
def test_load_vocabulary_refuses_bad_universe(tmp_path, universe, exc):
    with pytest.raises(exc):
        load_vocabulary(str(tmp_path), universe)


def test_obfuscation_manager():
    obf = ObfuscationManager(json.dumps(VOCAB), 3, "universe_top50")
    first = obf.get_vocabulary()
    first["features"].append({"name": "mutated"})
    assert obf.get_vocabulary() == VOCAB
    with pytest.raises(ValueError, match="no vocabulary"):
        ObfuscationManager(None, 3, "universe_top50")
    with pytest.raises(ValueError):
        ObfuscationManager("[]", 3, "universe_top50")


def test_sync_materialises_missing_data(tmp_path):
    source = DirSource()
    mgr = SyncManager(str(tmp_path), source=source)
    assert mgr.needs_sync()
    mgr.sync()
    assert not mgr.needs_sync() and source.calls == 1
    assert not SyncManager(str(tmp_path)).needs_sync()  # no source: nothing to sync


def test_sync_failures(tmp_path):
    mgr = SyncManager(str(tmp_path), source=DirSource([PermissionError("denied"),
                                                      ValueError("corrupt")]))
    with pytest.raises(ConnectionError, match="denied"):
        mgr.sync()
    with pytest.raises(ValueError):
        mgr.sync()
    mgr.sync()
    assert not mgr.needs_sync()
    assert str(SyncError("Data sync failed after multiple retries.")) == \
        "Data sync failed after multiple retries."
    with pytest.raises(TypeError):
        SyncManager(str(tmp_path), source=object())


def test_references_never_go_negative(tmp_path):
    mgr = SyncManager(str(tmp_path))
    assert [mgr.acquire(), mgr.acquire(), mgr.release(), mgr.release(), mgr.release()] == \
        [1, 2, 1, 0, 0]
    assert mgr.acquire() == 1


def test_era_callbacks_and_transition(tmp_path):
    mgr = SyncManager(str(tmp_path))
    calls = []
    cb = lambda *event: calls.append(event)  # noqa: E731
    mgr.register_era_callback(cb)
    mgr.register_era_callback(cb)
    mgr.register_era_callback(lambda *a: 1 / 0)  # a broken handle doesn't stop the others
    assert mgr.notify_era_event("kill", 2) == 2
    assert calls == [("kill", 2)]

    kills = []
    assert mgr.run_handle_era_transition(2, lambda: kills.append("k"), lambda: None) is None
    assert kills == []
    mgr.unregister_era_callback(cb)
    mgr.unregister_era_callback(cb)
    mgr.notify_era_event("restart", 2)
    assert calls == [("kill", 2)]
    with pytest.raises(ValueError):
        mgr.notify_era_event("explode", 2)
    assert mgr.request_for_sync() == []


def test_sync_thread_lifecycle(tmp_path):
    mgr = SyncManager(str(tmp_path))
    assert not mgr.is_alive()
    mgr.start()
    thread = mgr._thread
    mgr.start()
    assert mgr.is_alive() and mgr._thread is thread and thread.daemon
    mgr.stop()
    assert not mgr.is_alive()
    mgr._start_internal()
    assert mgr.is_alive()
    mgr.stop()


def test_emit_event_appends_json_lines(tmp_path):
    payload = {"code": "DATABASE_ERROR", "recovery": "check", "message": "boom"}
    callbacks.emit_event(data_dir=str(tmp_path), event_type="failure", severity="fatal",
                         payload=payload)
    callbacks.emit_event(data_dir=str(tmp_path), payload={"code": "X"})
    callbacks.emit_event(payload={"code": "memory only"})
    lines = [json.loads(l) for l in (tmp_path / "events.jsonl").read_text().splitlines()]
    assert [l["payload"]["code"] for l in lines] == ["DATABASE_ERROR", "X"]
    assert (lines[0]["event_type"], lines[0]["severity"]) == ("failure", "fatal")
    assert callbacks.recent_events()[-1]["payload"] == {"code": "memory only"}
    with pytest.raises(TypeError):
        callbacks.emit_event(payload="text")


def test_update_nudge_records_and_logs(caplog):
    caplog.set_level(logging.INFO, logger="tarnwicket.agent_onboarding")
    before = len(agent_onboarding._nudges)
    agent_onboarding.update_nudge("first_signal", total=1)
    assert agent_onboarding._nudges[before:][0]["trigger"] == "first_signal"
    assert agent_onboarding._nudges[-1]["context"] == {"total": 1}
    assert "first_signal" in caplog.text
    assert set(agent_onboarding._config) >= {"data_dir", "server_url"}
