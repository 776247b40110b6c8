"""All rules: these modules add them in the order of their checks."""

from cloud.check import tls_rules  # noqa: F401, adds rules
from cloud.check import token_rules  # noqa: F401, adds rules
from cloud.check import point_rules  # noqa: F401, adds rules
from cloud.check import log_rules  # noqa: F401, adds rules
from cloud.check import authorization_rules  # noqa: F401, adds rules
from cloud.check import connection_rules  # noqa: F401, adds rules
from cloud.check import renewal_rules  # noqa: F401, adds rules
from cloud.check import answer_rules  # noqa: F401, adds rules
from cloud.check.rules import ALL

__all__ = ["ALL"]
