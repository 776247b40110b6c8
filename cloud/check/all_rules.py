"""All rules, in the order of their checks."""

from cloud.check import (answer_rules, authorization_rules, connection_rules, log_rules,
                         point_rules, renewal_rules, tls_rules, token_rules)

_SECTIONS = (tls_rules.RULES, token_rules.RULES, point_rules.RULES, log_rules.RULES,
             authorization_rules.RULES, connection_rules.RULES, renewal_rules.RULES,
             answer_rules.RULES)
ALL = {rule.name: rule for section in _SECTIONS for rule in section}
