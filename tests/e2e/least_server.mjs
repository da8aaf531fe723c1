// The least server that the official SDK makes: the peer that bench/ measures beside ours.
import { McpServer } from '@modelcontextprotocol/sdk/server/mcp.js';
import { StdioServerTransport } from '@modelcontextprotocol/sdk/server/stdio.js';

const server = new McpServer({ name: 'least', version: '1.0.0' });
await server.connect(new StdioServerTransport());
