"""The product layer over `editor`: the session, its store, the command line and the MCP server."""
