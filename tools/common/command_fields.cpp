#include "common/command_fields.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>

#include <algorithm>
#include <utility>

namespace vexo::tools {

namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

command_field scalar_field(const Message& message, const FieldDescriptor* field) {
  const auto* const access = message.GetReflection();
  std::string value;
  if (field->cpp_type() == FieldDescriptor::CPPTYPE_STRING) {
    value = access->GetString(message, field);
  } else {
    google::protobuf::TextFormat::PrintFieldValueToString(message, field, -1, &value);
  }
  return {field->name(), std::move(value), !access->HasField(message, field)};
}

void append_scalars(const Message& message, std::vector<command_field>& fields) {
  const auto* const type = message.GetDescriptor();
  for (int i = 0; i < type->field_count(); ++i) {
    if (type->field(i)->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE) {
      fields.push_back(scalar_field(message, type->field(i)));
    }
  }
}

// The member of cmd_body that is set, or null.
const FieldDescriptor* body_of(const Message& command) {
  const auto* const oneof = command.GetDescriptor()->FindOneofByName("cmd_body");
  return command.GetReflection()->GetOneofFieldDescriptor(command, oneof);
}

char in_capitals(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

}  // namespace

std::string command_name(const scsiplugin::PluginCmd& command) {
  const auto* const body = body_of(command);
  return body == nullptr ? "" : body->name();
}

std::vector<command_field> command_fields(const scsiplugin::PluginCmd& command) {
  std::vector<command_field> fields;
  append_scalars(command, fields);
  if (const auto* const body = body_of(command)) {
    append_scalars(command.GetReflection()->GetMessage(command, body), fields);
  }
  return fields;
}

std::vector<std::string> command_environment(const scsiplugin::PluginCmd& command) {
  std::vector<std::string> environment = {"VEXO_COMMAND=" + command_name(command)};
  for (const command_field& field : command_fields(command)) {
    std::string name = field.name;
    std::transform(name.begin(), name.end(), name.begin(), in_capitals);
    environment.push_back("VEXO_" + name + "=" + field.value);
  }
  return environment;
}

}  // namespace vexo::tools
