"""A private broker, and helpers for processes that must not outlive their owner; used by the tests and the demo."""
