"""The session layer a coding agent runs on: tool calls over `editor`, kept in a SQLite store in
the project's state directory so that a session survives restarts, kills and a second process.

`session.Session` holds the tool calls, `store` the durable state, `journal` the write-ahead
marks and their recovery, `guards` the checks made before the module is called, `live_index` the
indexer state, and `cli` the command line (`python -m editor_session`).
"""
