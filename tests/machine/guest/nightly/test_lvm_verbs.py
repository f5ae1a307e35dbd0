"""All actions of verbs.py in both states, except those that test_layers.py covers."""
import pytest

from verbs import STATES, VERBS, check_verb

PAIRS = [pytest.param(verb, state, id=f"{verb.name}-{state}")
         for verb in VERBS for state in STATES if state != verb.every_run_state]


@pytest.mark.parametrize("verb, state", PAIRS)
def test_verb(group, verb, state, record_property):
    record_property("verb", check_verb(group, verb, state))
