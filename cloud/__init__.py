"""The reference cloud: an identity provider and a monitoring service on existing engines. It uses
nothing else of this tree except docs/cloud-api.yaml."""
