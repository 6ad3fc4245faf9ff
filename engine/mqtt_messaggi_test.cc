#include "engine/mqtt_messaggi.h"

#include <gtest/gtest.h>

namespace nvr {
namespace {

TEST(MqttMessaggiTest, SettingsChecksNameTheField) {
  ImpostazioniMqtt base;
  base.password = "vecchia";
  struct Caso {
    Json corpo;
    std::string errore;  // "" when accepted; else the start of the message
  } casi[] = {
      {{{"attivo", true}, {"host", "broker.casa"}, {"porta", 8883}}, ""},
      {{{"attivo", true}, {"host", "192.168.1.5"}}, ""},
      {{{"attivo", true}, {"host", "fe80::1"}}, ""},
      {{{"attivo", false}}, ""},  // no host needed while off
      {{{"attivo", true}}, "mqtt.host:"},
      {{{"host", "broker casa"}}, "mqtt.host:"},
      {{{"host", "-broker"}}, "mqtt.host:"},
      {{{"host", "a..b"}}, "mqtt.host:"},
      {{{"porta", 0}}, "mqtt.porta:"},
      {{{"porta", 65536}}, "mqtt.porta:"},
      {{{"porta", "x"}}, "mqtt.porta:"},
      {{{"porta", 1883.5}}, "mqtt.porta:"},
      {{{"porta", "1883"}}, ""},
      {{{"prefisso", "casa/nvr"}}, ""},
      {{{"prefisso", ""}}, "mqtt.prefisso:"},
      {{{"prefisso", "casa/+"}}, "mqtt.prefisso:"},
      {{{"prefisso", "#"}}, "mqtt.prefisso:"},
      {{{"prefisso", "casa//nvr"}}, "mqtt.prefisso:"},
      {{{"prefisso", "/nvr"}}, "mqtt.prefisso:"},
      {{{"prefisso", "nvr/"}}, "mqtt.prefisso:"},
      {{{"stati", {{{"entita", "binary_sensor.porta"}, {"topic", "casa/porta"}}}}}, ""},
      {{{"stati", {{{"entita", " "}, {"topic", "casa/porta"}}}}}, "mqtt.stati[0].entita:"},
      {{{"stati", {{{"entita", "a"}, {"topic", "casa/#"}}}}}, "mqtt.stati[0].topic:"},
      {{{"stati", {{{"entita", "a"}, {"topic", "a"}}, {{"entita", "b"}, {"topic", "+/x"}}}}},
       "mqtt.stati[1].topic:"},
      {{{"stati", {{{"entita", "a"}, {"topic", "t"}}, {{"entita", "b"}, {"topic", "t"}}}}},
       "mqtt.stati[1].topic:"},
      {{{"stati", "casa/porta"}}, "mqtt.stati:"},
      {{{"tls", "si"}}, "mqtt.tls:"},
      {Json::array(), "mqtt:"},
  };
  for (const auto& c : casi) {
    auto r = unisci_impostazioni_mqtt(base, c.corpo);
    if (c.errore.empty()) {
      EXPECT_TRUE(r.ok()) << c.corpo << " " << (r ? "" : r.errore().messaggio);
    } else {
      ASSERT_FALSE(r.ok()) << c.corpo;
      EXPECT_EQ(r.errore().codice, 400);
      EXPECT_TRUE(r.errore().messaggio.starts_with(c.errore)) << r.errore().messaggio;
    }
  }
}

TEST(MqttMessaggiTest, PasswordIsWriteOnly) {
  ImpostazioniMqtt base;
  base.password = "vecchia";
  EXPECT_EQ(unisci_impostazioni_mqtt(base, {{"password", ""}}).valore().password, "vecchia");
  EXPECT_EQ(unisci_impostazioni_mqtt(base, Json::object()).valore().password, "vecchia");
  EXPECT_EQ(unisci_impostazioni_mqtt(base, {{"password", "nuova"}}).valore().password, "nuova");
  EXPECT_EQ(unisci_impostazioni_mqtt(base, {{"password", nullptr}}).valore().password, "");
  const Json mostrate = mqtt_da_mostrare(base);
  EXPECT_FALSE(mostrate.contains("password"));
  EXPECT_EQ(mostrate["password_impostata"], true);
  EXPECT_EQ(mqtt_salvate(mqtt_da_salvare(base)), base);
}

Salute salute_di_prova() {
  Salute s;
  SaluteCamera c;
  c.id = 3;
  c.nome = "Ingresso";
  c.stato = StatoCamera::registra;
  c.ultimo_segmento = 1700000000.7;
  s.telecamere.push_back(c);
  s.byte_liberi = 12'345'678'901ull;
  s.problemi.push_back({"spazio", "Spazio quasi finito", 1});
  return s;
}

TEST(MqttMessaggiTest, DiscoveryOfACamera) {
  auto m = messaggi_scoperta(salute_di_prova(), "casa/nvr");
  ASSERT_EQ(m.size(), 5u);  // 2 per camera, 3 for the archive
  EXPECT_EQ(m[0].topic, "homeassistant/binary_sensor/casa_nvr/cam3_registra/config");
  EXPECT_TRUE(m[0].retain);
  const Json j = Json::parse(m[0].payload);
  EXPECT_EQ(j["unique_id"], "casa_nvr_cam3_registra");
  EXPECT_EQ(j["device_class"], "running");
  EXPECT_EQ(j["state_topic"], "casa/nvr/telecamere/3/registra");
  EXPECT_EQ(j["availability_topic"], "casa/nvr/stato");
  EXPECT_EQ(j["device"]["identifiers"][0], "casa_nvr_cam3");
  EXPECT_EQ(j["device"]["name"], "Ingresso");
  EXPECT_EQ(j["device"]["via_device"], "casa_nvr");
  const Json t = Json::parse(m[1].payload);
  EXPECT_EQ(t["device_class"], "timestamp");
  EXPECT_EQ(t["state_topic"], "casa/nvr/telecamere/3/ultimo_segmento");
  EXPECT_EQ(Json::parse(m[4].payload)["json_attributes_topic"], "casa/nvr/problemi/attributi");
}

TEST(MqttMessaggiTest, StatesAndWhatToSend) {
  Salute s = salute_di_prova();
  std::map<std::string, std::string> inviati;
  auto tutti = da_inviare(messaggi_stato(s, "nvr"), inviati, false);
  std::map<std::string, std::string> visti;
  for (const auto& m : tutti) visti[m.topic] = m.payload;
  EXPECT_EQ(visti["nvr/telecamere/3/registra"], "ON");
  EXPECT_EQ(visti["nvr/telecamere/3/ultimo_segmento"], "2023-11-14T22:13:20+00:00");
  EXPECT_EQ(visti["nvr/archivio/spazio_libero"], "12.35");
  EXPECT_EQ(visti["nvr/archivio/giorni_rimasti"], "None");
  EXPECT_EQ(visti["nvr/problemi"], "1");
  EXPECT_EQ(visti["nvr/problemi/attributi"], R"({"problemi":["Spazio quasi finito"]})");

  EXPECT_TRUE(da_inviare(messaggi_stato(s, "nvr"), inviati, false).empty());
  EXPECT_EQ(da_inviare(messaggi_stato(s, "nvr"), inviati, true).size(), tutti.size());
  s.telecamere[0].stato = StatoCamera::ferma;
  auto cambiati = da_inviare(messaggi_stato(s, "nvr"), inviati, false);
  ASSERT_EQ(cambiati.size(), 1u);
  EXPECT_EQ(cambiati[0], (MessaggioMqtt{"nvr/telecamere/3/registra", "OFF", true}));
  s.telecamere.clear();  // a camera removed: its retained topics are emptied
  auto tolti = da_inviare(messaggi_stato(s, "nvr"), inviati, false);
  ASSERT_EQ(tolti.size(), 2u);
  EXPECT_EQ(tolti[0].payload, "");
  EXPECT_TRUE(da_inviare(messaggi_stato(s, "nvr"), inviati, false).empty());
}

TEST(MqttMessaggiTest, BackOffAndIncomingPayloads) {
  const std::pair<int, double> attese[] = {{0, 1}, {1, 2}, {3, 8}, {5, 32}, {6, 60}, {40, 60}};
  for (auto [n, s] : attese) EXPECT_EQ(attesa_riconnessione(n), s) << n;

  const std::pair<std::string, std::optional<Json>> payload[] = {
      {"ON", Json("ON")},
      {"  aperto \n", Json("aperto")},
      {"1", Json(1)},
      {"true", Json(true)},
      {R"({"state": "off", "x": 1})", Json("off")},
      {R"({"x": 1})", std::nullopt},
      {R"({"state": )", std::nullopt},
      {"", std::nullopt},
      {std::string("o\0n", 3), std::nullopt},
      {"\xff\xfe", std::nullopt},
      {std::string(kMassimoPayloadMqtt + 1, 'a'), std::nullopt},
  };
  for (const auto& [p, atteso] : payload) EXPECT_EQ(stato_da_payload(p), atteso) << p.substr(0, 40);
}

}  // namespace
}  // namespace nvr
