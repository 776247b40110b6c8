"""The rules of codes that can revoke the tokens in use: they are checked last."""

from cloud.check.cloud import Cloud
from cloud.check.rules import Section, accepted
from cloud.check.exchange_rules import fields_of, rejected, text_of
from cloud.check.refresh_rules import renew

RULES = Section("Another code")


@RULES.rule(
    "provisioned-again", "Another code provisions the device again: its tokens are accepted.",
    reason="A device that has lost its credentials gets another code.",
    consequence="The device stays unprovisioned.",
    remedy="Allow several grants for a client and device, or let the latest replace the others.",
    needs=("refreshed-token-accepted",))
def provisioned_again(cloud: Cloud) -> None:
    fields = fields_of(cloud.exchange(cloud.new_code()), "the second exchange")
    cloud.access_token = text_of(fields, "access_token")
    cloud.refresh_token = text_of(fields, "refresh_token")
    accepted(cloud, cloud.metrics([cloud.point("provisioned-again")]), "a point")
    renew(cloud, "its refresh")
    accepted(cloud, cloud.metrics([cloud.point("provisioned-again/refreshed")]), "another point")


@RULES.rule(
    "spent-code", "A code that was exchanged before is answered with 4XX.",
    reason="A daemon that was killed during an exchange sends its code again.",
    consequence="Anyone who reads the command later gets the tokens of the device.",
    remedy="Accept each code once; answer 400 with `invalid_grant`.", needs=("exchange-accepted",))
def spent_code(cloud: Cloud) -> None:
    rejected(cloud.exchange(cloud.code), "the spent code")
