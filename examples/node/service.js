// The daemon's service, from the schema itself: no generated code.
const dns = require('dns').promises;
const path = require('path');
const grpc = require('@grpc/grpc-js');
const loader = require('@grpc/proto-loader');

const schema = loader.loadSync('plugin_service.proto', {
  includeDirs: [path.join(__dirname, '../../proto')],
  keepCase: true,
  enums: String,
  defaults: true,
});
const { PluginService } = grpc.loadPackageDefinition(schema).vexo.scsiplugin;

const options = {
  'grpc.use_local_subchannel_pool': 1, // a new client is a new connection
  'grpc.keepalive_time_ms': 300_000, // more often, and the daemon closes the connection
  'grpc.keepalive_permit_without_calls': 1,
};

// HOST[:PORT] by an IPv4 address: commands are pushed to no other peers.
exports.ipv4Target = async (appliance) => {
  const [host, port = 3265] = appliance.split(':');
  return `ipv4:${(await dns.lookup(host, { family: 4 })).address}:${port}`;
};

exports.connect = (target) => {
  const client = new PluginService(target, grpc.credentials.createInsecure(), options);
  return {
    subscribe: (request) => client.Subscribe(request),
    call: (method, request, ms) =>
      new Promise((resolve, reject) => {
        client[method](request, { deadline: Date.now() + ms }, (error, response) =>
          error ? reject(error) : resolve(response));
      }),
    close: () => client.close(),
  };
};
