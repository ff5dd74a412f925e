import os
import sys

# Tests run against the installed package; shared fakes live in tests/fakes.
sys.path.insert(0, os.path.dirname(__file__))
