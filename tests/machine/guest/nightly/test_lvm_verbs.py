"""Every verb of verbs.py in both states, but for those of test_layers.py."""
import pytest

from verbs import STATES, VERBS, check_verb


@pytest.mark.parametrize("state", STATES)
@pytest.mark.parametrize("verb", VERBS, ids=lambda verb: verb.name)
def test_verb(group, verb, state, record_property):
    record_property("verb", check_verb(group, verb, state))
