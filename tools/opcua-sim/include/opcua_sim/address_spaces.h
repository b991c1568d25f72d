#pragma once

// Ready-made address spaces for the simulated server, to put into options::address_spaces
// or to pick on the command line with --address-space NAME.

#include "opcua_sim/server.h"

#include <string>
#include <vector>

namespace opcua_sim {

// The custom sensor's address space: one variable of each built-in type that the module
// reads, some that it refuses, arrays, numbers in strings, and the odd cases.
//
// The setup adds the namespace "urn:opcua-sim:custom" and puts every node into it. It is
// index 2 when it is the first namespace of the server (no options::namespace_uris, no
// other setup before it); the ids below assume that. All nodes hang below the folder
// ns=2;s=Custom (an Object, not a Variable) in the Objects folder.
//
// Unless the table says otherwise, a variable with string id s=<Name> has
//   BrowseName   2:<Name>
//   DisplayName  locale "en", text "Custom <Name>"
//   Description  locale "en", text "<Name> of the custom address space"
//   DataType     that of its value; ValueRank scalar (-1), or one dimension (1) for arrays
//   AccessLevel  read only (Changeable: read and write)
//
// | NodeID                        | Type             | Value                                  |
// |-------------------------------|------------------|----------------------------------------|
// | ns=2;s=Boolean                | Boolean          | true                                   |
// | ns=2;s=BooleanFalse           | Boolean          | false                                  |
// | ns=2;s=SByte                  | SByte            | -56                                    |
// | ns=2;s=Byte                   | Byte             | 200                                    |
// | ns=2;s=Int16                  | Int16            | -1234                                  |
// | ns=2;s=UInt16                 | UInt16           | 54321                                  |
// | ns=2;s=Int32                  | Int32            | -123456                                |
// | ns=2;s=UInt32                 | UInt32           | 4294967295                             |
// | ns=2;s=Int64                  | Int64            | -9000000000                            |
// | ns=2;s=UInt64                 | UInt64           | 9223372036854775807 (largest Int64)    |
// | ns=2;s=UInt64Overflow         | UInt64           | 9223372036854775808 (one above)        |
// | ns=2;s=Float                  | Float            | 1.5                                    |
// | ns=2;s=Double                 | Double           | 3.25                                   |
// | ns=2;s=DateTime               | DateTime         | 133000000000000000 ticks (13300000000 s since 1601) |
// | ns=2;s=String                 | String           | "Hello"                                |
// | ns=2;s=StringEmpty            | String           | "" (length 0)                          |
// | ns=2;s=StringNumber           | String           | "12.5 kg"                              |
// | ns=2;s=StringInteger          | String           | "42"                                   |
// | ns=2;s=StringText             | String           | "abc"                                  |
// | ns=2;s=StringHuge             | String           | "1e999" (beyond a double)              |
// | ns=2;s=LocalizedText          | LocalizedText    | locale "en", text "Hello"              |
// | ns=2;s=QualifiedName          | QualifiedName    | namespace 2, name "Temp" (reads "2:Temp") |
// | ns=2;s=EnumValue              | EnumValueType    | Value 3, DisplayName "Three"           |
// | ns=2;s=Guid                   | Guid             | 72962b91-fa75-4ae6-8d28-b404dc7daf63   |
// | ns=2;s=ByteString             | ByteString       | bytes 01 02 03                         |
// | ns=2;s=StatusCode             | StatusCode       | BadInternalError                       |
// | ns=2;s=Int32Array             | Int32[5]         | 10, 20, 30, 40, 50                     |
// | ns=2;s=DoubleArray            | Double[3]        | 1.5, 2.5, 3.5                          |
// | ns=2;s=StringArray            | String[2]        | "first", "second"                      |
// | ns=2;s=BooleanArray           | Boolean[2]       | true, false                            |
// | ns=2;s=EmptyArray             | Int32[0]         | empty array                            |
// | ns=2;s=NoDescription          | Int32            | 7; Description empty (locale and text "") |
// | ns=2;s=NoValue                | BaseDataType     | no value (empty variant)               |
// | ns=2;s=Changeable             | Int32            | 0; read and write, change it with server::set_value |
// | ns=2;s=SensorMessage          | String           | "Machine running"                      |
// | ns=2;s=SensorMessageEmpty     | String           | "" (length 0)                          |
// | ns=2;i=1001                   | Double           | 99.5; BrowseName 2:Numeric, DisplayName "Custom Numeric" |
//
// Values are restored at every start; what set_value wrote is applied after the setup,
// so it survives a restart. set_value with a value of another type or rank than the
// variable has replaces the node, and the new one has the id as its DisplayName and no
// Description.
address_space_setup custom_address_space();

inline constexpr const char* custom_namespace_uri = "urn:opcua-sim:custom";

// The names that --address-space takes, in the order of the usage text.
std::vector<std::string> address_space_names();

// The setup called `name`; raises std::invalid_argument for an unknown one.
address_space_setup address_space_by_name(const std::string& name);

} // namespace opcua_sim
