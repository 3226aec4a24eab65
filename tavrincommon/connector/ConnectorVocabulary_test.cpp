#include "tavrincommon/connector/ConnectionHandlerType.h"
#include "tavrincommon/connector/ConnectorInterfaceType.h"
#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/ErrorType.h"
#include "tavrincommon/connector/TavrinConnectorMessageType.h"

#include <gtest/gtest.h>

namespace {

using namespace tavrinConnector;

// Numbers read from the wire are checked against these ranges: each ends at its last named value.
TEST(ConnectorVocabularyTest, RangesEndAtTheLastNamedValueAndUnnamedValuesReadUnknown) {
  // Handler types are sparse: a gap between 7 and the named values above 3301.
  EXPECT_TRUE(ConnectionHandlerType::isValidNum(7));
  EXPECT_FALSE(ConnectionHandlerType::isValidNum(8));
  EXPECT_FALSE(ConnectionHandlerType::isValidNum(3301));
  EXPECT_TRUE(ConnectionHandlerType::isValidNum(3303));
  EXPECT_FALSE(ConnectionHandlerType::isValidNum(-1));
  EXPECT_STREQ(ConnectionHandlerType::getText(3301L), "unknown");

  // Disconnect reasons are negative; zero is valid but has no name.
  EXPECT_TRUE(DisconnectReason::isValidNum(0));
  EXPECT_TRUE(DisconnectReason::isValidNum(-16));
  EXPECT_FALSE(DisconnectReason::isValidNum(-17));
  EXPECT_FALSE(DisconnectReason::isValidNum(1));
  EXPECT_STREQ(DisconnectReason::getText(0L), "unknown");

  // The unsigned ranges reject negative numbers.
  EXPECT_TRUE(ConnectorInterfaceType::isValidNum(6));
  EXPECT_FALSE(ConnectorInterfaceType::isValidNum(7));
  EXPECT_FALSE(ConnectorInterfaceType::isValidNum(-1));
  EXPECT_FALSE(ErrorType::isValidNum(-1));
  EXPECT_FALSE(ErrorType::isValidNum(4));
  EXPECT_TRUE(TavrinConnectorMessageType::isValidNum(10));
  EXPECT_FALSE(TavrinConnectorMessageType::isValidNum(11));
  EXPECT_FALSE(TavrinConnectorMessageType::isValidNum(-1));
  EXPECT_STREQ(TavrinConnectorMessageType::getText(11L), "unknown");
}

}  // namespace
