#include "tavrincommon/connector/ConnectionHandlerType.h"
#include "tavrincommon/connector/ConnectorInterfaceType.h"
#include "tavrincommon/connector/DisconnectReason.h"
#include "tavrincommon/connector/ErrorType.h"
#include "tavrincommon/connector/TavrinConnectorMessageType.h"

#include <gtest/gtest.h>

namespace {

using namespace tavrinConnector;

TEST(ConnectorVocabularyTest, HandlerTypesAreSparseWithTextsForNamedValuesOnly) {
  EXPECT_STREQ(ConnectionHandlerType::getText(ConnectionHandlerType::Unknown), "unknown");
  EXPECT_STREQ(ConnectionHandlerType::getText(8L), "unknown");
  EXPECT_STREQ(ConnectionHandlerType::getText(3301L), "unknown");
  EXPECT_STREQ(ConnectionHandlerType::getText(ConnectionHandlerType::QuillaBeltpackTrelvoMk2),
               "Quilla Beltpack (Trelvo Mk2)");
  EXPECT_STREQ(ConnectionHandlerType::getText(3303L), "Quilla S Beltpack (SimpleConnector)");
  EXPECT_TRUE(ConnectionHandlerType::isValidNum(0));
  EXPECT_TRUE(ConnectionHandlerType::isValidNum(7));
  EXPECT_FALSE(ConnectionHandlerType::isValidNum(8));
  EXPECT_FALSE(ConnectionHandlerType::isValidNum(3301));
  EXPECT_TRUE(ConnectionHandlerType::isValidNum(3303));
  EXPECT_FALSE(ConnectionHandlerType::isValidNum(-1));
}

TEST(ConnectorVocabularyTest, DisconnectReasonsAreNegativeWithZeroUnnamed) {
  EXPECT_TRUE(DisconnectReason::isValidNum(0));
  EXPECT_TRUE(DisconnectReason::isValidNum(-16));
  EXPECT_FALSE(DisconnectReason::isValidNum(-17));
  EXPECT_FALSE(DisconnectReason::isValidNum(1));
  EXPECT_STREQ(DisconnectReason::getText(-4L), "connectionInterrupted");
  EXPECT_STREQ(DisconnectReason::getText(DisconnectReason::automaticConnectionRemoved),
               "automaticConnectionRemoved");
  EXPECT_STREQ(DisconnectReason::getText(0L), "unknown");
  EXPECT_STREQ(DisconnectReason::getText(1L), "unknown");
}

TEST(ConnectorVocabularyTest, UnsignedRangesRejectNegativeNumbers) {
  EXPECT_TRUE(ConnectorInterfaceType::isValidNum(6));
  EXPECT_FALSE(ConnectorInterfaceType::isValidNum(7));
  EXPECT_FALSE(ConnectorInterfaceType::isValidNum(-1));
  EXPECT_STREQ(
      ConnectorInterfaceType::getText(ConnectorInterfaceType::TrelvoMk2QuillaInterfaceMaster),
      "Trelvo Mk2 / Quilla Interface Master");
  EXPECT_STREQ(ConnectorInterfaceType::getText(0L), "unknown");

  EXPECT_FALSE(ErrorType::isValidNum(-1));
  EXPECT_FALSE(ErrorType::isValidNum(4));
  EXPECT_STREQ(ErrorType::getText(ErrorType::messageTooLarge), "messageTooLarge");

  EXPECT_TRUE(TavrinConnectorMessageType::isValidNum(10));
  EXPECT_FALSE(TavrinConnectorMessageType::isValidNum(11));
  EXPECT_FALSE(TavrinConnectorMessageType::isValidNum(-1));
  EXPECT_STREQ(TavrinConnectorMessageType::getText(TavrinConnectorMessageType::acceptConnection),
               "acceptConnection");
  EXPECT_STREQ(TavrinConnectorMessageType::getText(11L), "unknown");
}

}  // namespace
