// The daemon's service, from the schema itself: no generated code.
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

exports.connect = (address) => {
  const client = new PluginService(address, grpc.credentials.createInsecure());
  return {
    subscribe: (request) => client.Subscribe(request),
    call: (method, request, seconds) =>
      new Promise((resolve, reject) => {
        const deadline = Date.now() + seconds * 1000;
        client[method](request, { deadline }, (error, response) =>
          error ? reject(error) : resolve(response));
      }),
    close: () => client.close(),
  };
};
