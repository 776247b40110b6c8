"""All rules, in the order of their checks."""

from cloud.check import (answer_rules, authorization_rules, connection_rules, exchange_rules,
                         log_rules, point_rules, refresh_rules, renewal_rules, tls_rules)

# Those about refreshes and other codes come late, because they can end the tokens in use.
_SECTIONS = (tls_rules.RULES, exchange_rules.RULES, point_rules.RULES, log_rules.RULES,
             authorization_rules.RULES, connection_rules.RULES, refresh_rules.RULES,
             renewal_rules.RULES, answer_rules.RULES)
ALL = {rule.name: rule for section in _SECTIONS for rule in section}
