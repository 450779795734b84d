"""A fleet of clipweir runs: many pages on many machines, by way of Celery."""

__version__ = "4.0.0.1"
